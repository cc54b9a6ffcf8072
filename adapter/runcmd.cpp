// RunSystemCmd: runs a program with an argument vector, without a shell, so
// words taken from requests (ports, addresses) are never parsed as commands.
//
// The core library sets SIGCHLD to "ignore" with SA_NOCLDWAIT for the whole
// process. Children are then reaped by the kernel: waitpid() blocks until
// the child has ended and fails with ECHILD, and its exit status is lost. In
// that case the command counts as successful (status 0).
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

#include "adapter_io.h"
#include "common/paths.h"
#include "common/cancel.h"
#include "qdquick/qdplatform.h"

namespace {

constexpr int kMaxWords = 63;

// Moves a descriptor above 0..2, so dup2 onto standard output in the child
// can never overwrite it (the host may run with standard streams closed).
qdq::Fd above_stdio(int fd) {
    if (fd < 0 || fd > 2) return qdq::Fd(fd);
    qdq::Fd low(fd);
    return qdq::Fd(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

// Between fork and exec only async-signal-safe calls.
[[noreturn]] void exec_child(char *const argv[], int out_fd, int err_pipe) {
    if (out_fd >= 0 && ::dup2(out_fd, STDOUT_FILENO) < 0) {
        int e = errno;
        (void)!::write(err_pipe, &e, sizeof e);
        ::_exit(127);
    }
    // The command starts with ordinary signal handling, whatever the host
    // ignores or blocks (an inherited ignored SIGCHLD breaks shells' wait).
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    ::sigaction(SIGCHLD, &dfl, nullptr);
    ::sigaction(SIGPIPE, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execvp(argv[0], argv);
    int e = errno;
    (void)!::write(err_pipe, &e, sizeof e);
    ::_exit(127);
}

int run(char *const argv[], const std::string &outfile) {
    // A cancellation inside would leak the descriptors and leave a zombie.
    qdq::NoCancel no_cancel;
    qdq::Fd out;
    if (!outfile.empty()) {
        out = above_stdio(::open(outfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!out) {
            qdp::warn("RunSystemCmd: cannot open %s: %s", outfile.c_str(), std::strerror(errno));
            return -1;
        }
    }
    // The child reports a failed exec through this pipe; a successful exec
    // closes it (close-on-exec) and the parent reads end of file.
    int p[2];
    if (::pipe2(p, O_CLOEXEC) != 0) {
        qdp::warn("RunSystemCmd: pipe: %s", std::strerror(errno));
        return -1;
    }
    qdq::Fd rd = above_stdio(p[0]);
    qdq::Fd wr = above_stdio(p[1]);
    if (!rd || !wr) return -1;

    pid_t pid = ::fork();
    if (pid < 0) {
        qdp::warn("RunSystemCmd: fork: %s", std::strerror(errno));
        return -1;
    }
    if (pid == 0) exec_child(argv, out.get(), wr.get());
    wr.reset();
    out.reset();

    int exec_errno = 0;
    ssize_t n;
    do {
        n = ::read(rd.get(), &exec_errno, sizeof exec_errno);
    } while (n < 0 && errno == EINTR);
    bool exec_failed = n == static_cast<ssize_t>(sizeof exec_errno);

    int status = 0;
    bool have_status = true;
    for (;;) {
        pid_t r = ::waitpid(pid, &status, 0);
        if (r == pid) break;
        if (r < 0 && errno == EINTR) continue;
        have_status = false;  // ECHILD: reaped by the kernel (see above)
        break;
    }
    if (exec_failed) {
        qdp::warn("RunSystemCmd: cannot run %s: %s", argv[0], std::strerror(exec_errno));
        return -1;
    }
    if (!have_status) return 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

extern "C" QDQ_API int RunSystemCmd(const char *outfile, ...) {
    char *argv[kMaxWords + 1];
    int n = 0;
    bool too_many = false;
    va_list ap;
    va_start(ap, outfile);
    for (;;) {
        const char *word = va_arg(ap, const char *);
        if (word == nullptr || word[0] == '\0') break;
        if (n == kMaxWords) {
            too_many = true;
            break;
        }
        argv[n++] = const_cast<char *>(word);  // execvp's signature; never written
    }
    va_end(ap);
    argv[n] = nullptr;
    if (n == 0 || too_many) {
        qdp::warn("RunSystemCmd: %s", n == 0 ? "no program" : "more than 63 words");
        return -1;
    }
    return qdp::guard("RunSystemCmd", -1, [&] {
        return run(argv, outfile != nullptr && outfile[0] != '\0' ? qdq::path(outfile) : "");
    });
}
