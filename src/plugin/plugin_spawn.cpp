#include "plugin/plugin_spawn.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/socket.h"
#include "common/cancel.h"

namespace qdq::plugin {

namespace {

// What the child reports when a step fails: the step and its errno.
struct Failure {
    int step;
    int err;
};
const char *const kSteps[] = {"setsid", "standard streams", "chdir", "open-file limit", "address-space limit",
                              "setgroups", "setgid", "setuid", "dropping root", "exec"};

[[noreturn]] void fail(int fd, int step) {
    Failure f{step, errno};
    (void)!write(fd, &f, sizeof f);
    _exit(127);
}

// Nothing of the daemon's stays open in the plugin: sockets, logs, pipes.
void close_on_exec_from(int lowest) {
#if defined(SYS_close_range) && defined(CLOSE_RANGE_CLOEXEC)
    if (syscall(SYS_close_range, lowest, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
#endif
    for (int fd = lowest; fd < 4096; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

// The host may run with standard streams closed: keep our descriptors off
// 0..2, which the child overwrites.
qdq::Fd above_stdio(int fd) {
    if (fd < 0 || fd > 2) return qdq::Fd(fd);
    qdq::Fd low(fd);
    return qdq::Fd(fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

bool set_limit(int resource, rlim_t value) {
    struct rlimit r;
    r.rlim_cur = r.rlim_max = value;
    return setrlimit(resource, &r) == 0;
}

// Between fork and exec only async-signal-safe calls: everything the child
// needs was prepared by the parent.
[[noreturn]] void child(const SpawnPlan &plan, char *const argv[], int devnull, int report) {
    if (setsid() < 0) fail(report, 0);
    if ((plan.dirfd >= 0 ? fchdir(plan.dirfd) : chdir(plan.dir.c_str())) != 0) fail(report, 2);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // Input is empty; output goes to the daemon's standard error (where it
    // has none, standard output stays as it is).
    if (dup2(devnull, STDIN_FILENO) < 0) fail(report, 1);
    (void)dup2(STDERR_FILENO, STDOUT_FILENO);
    if (plan.nofile >= 0 && !set_limit(RLIMIT_NOFILE, static_cast<rlim_t>(plan.nofile))) fail(report, 3);
    if (plan.vram_kib > 0 && !set_limit(RLIMIT_AS, static_cast<rlim_t>(plan.vram_kib) * 1024)) fail(report, 4);
    if (plan.vram_kib == 0) set_limit(RLIMIT_AS, RLIM_INFINITY);  // "unlimited": as far as allowed
    if (plan.switch_user) {
        if (setgroups(1, &plan.gid) != 0) fail(report, 5);
        if (setgid(plan.gid) != 0) fail(report, 6);
        if (setuid(plan.uid) != 0) fail(report, 7);
        if (setuid(0) == 0 || getuid() != plan.uid || geteuid() != plan.uid) fail(report, 8);
    }
    close_on_exec_from(3);
    execv(argv[0], argv);
    fail(report, 9);
}

}  // namespace

pid_t spawn(const SpawnPlan &plan, std::string &why) {
    if (plan.argv.empty()) {
        why = "no program";
        return -1;
    }
    qdq::NoCancel no_cancel;  // a cancellation would leak the descriptors
    std::vector<char *> argv;
    for (const std::string &a : plan.argv) argv.push_back(const_cast<char *>(a.c_str()));  // execv's signature
    argv.push_back(nullptr);
    qdq::Fd devnull = above_stdio(open("/dev/null", O_RDONLY | O_CLOEXEC));
    int p[2] = {-1, -1};
    if (pipe2(p, O_CLOEXEC) != 0) p[0] = p[1] = -1;
    qdq::Fd rd = above_stdio(p[0]), wr = above_stdio(p[1]);
    if (!devnull || !rd || !wr) {
        why = std::string("cannot prepare: ") + std::strerror(errno);
        return -1;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        why = std::string("fork: ") + std::strerror(errno);
        return -1;
    }
    if (pid == 0) child(plan, argv.data(), devnull.get(), wr.get());
    wr.reset();
    // End of file: exec succeeded (the pipe is close-on-exec).
    Failure f{};
    ssize_t n;
    do {
        n = read(rd.get(), &f, sizeof f);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof f)) return pid;
    waitpid(pid, nullptr, 0);
    const int step = f.step >= 0 && f.step < static_cast<int>(std::size(kSteps)) ? f.step : 9;
    why = std::string(kSteps[step]) + ": " + std::strerror(f.err);
    return -1;
}

std::string find_program(const char *program) {
    const char *path = std::getenv("PATH");
    std::string dirs = path != nullptr && path[0] != '\0' ? path : "/usr/local/bin:/usr/bin:/bin";
    for (std::size_t from = 0; from <= dirs.size();) {
        std::size_t colon = dirs.find(':', from);
        if (colon == std::string::npos) colon = dirs.size();
        std::string dir = dirs.substr(from, colon - from);
        from = colon + 1;
        if (dir.empty() || dir[0] != '/') continue;  // never the working directory
        std::string file = dir + "/" + program;
        struct stat st;
        if (stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(file.c_str(), X_OK) == 0) return file;
    }
    return "";
}

}  // namespace qdq::plugin
