// stoppid: signals every process of a given name. There is no pid file to
// trust on a plain host, so processes are found in /proc by name: the kernel
// name (comm, cut at 15 characters) or the program of argv[0]. /proc is the
// running kernel's, never under the file root.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "adapter_io.h"
#include "qdquick/qdplatform.h"

namespace {

struct DirCloser {
    void operator()(DIR *d) const { ::closedir(d); }
};

// Up to 4 KiB of a /proc file; "" when it cannot be read (process gone).
std::string read_proc(const std::string &file) {
    qdq::Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return "";
    char buf[4096];
    ssize_t n;
    do {
        n = ::read(fd.get(), buf, sizeof buf);
    } while (n < 0 && errno == EINTR);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
}

bool is_named(const std::string &dir, const std::string &name) {
    std::string comm = read_proc(dir + "/comm");
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    if (comm == name) return true;
    std::string cmdline = read_proc(dir + "/cmdline");
    std::string argv0 = cmdline.substr(0, cmdline.find('\0'));
    if (argv0.empty()) return false;
    if (argv0 == name) return true;
    std::size_t slash = argv0.rfind('/');
    return slash != std::string::npos && argv0.compare(slash + 1, std::string::npos, name) == 0;
}

int signal_by_name(const std::string &name, int signo) {
    std::unique_ptr<DIR, DirCloser> proc(::opendir("/proc"));
    if (!proc) {
        qdp::warn("stoppid: cannot read /proc: %s", std::strerror(errno));
        return -1;
    }
    const pid_t self = ::getpid();
    int count = 0;
    while (const dirent *e = ::readdir(proc.get())) {
        char *end = nullptr;
        long pid = std::strtol(e->d_name, &end, 10);
        if (end == e->d_name || *end != '\0' || pid <= 0 || pid == self) continue;
        if (!is_named(std::string("/proc/") + e->d_name, name)) continue;
        if (::kill(static_cast<pid_t>(pid), signo) == 0) {
            ++count;
        } else if (errno != ESRCH) {
            qdp::warn("stoppid: cannot signal %ld: %s", pid, std::strerror(errno));
        }
    }
    return count;
}

}  // namespace

extern "C" QDQ_API int stoppid(const char *process, const char *pidfile, int signo) {
    (void)pidfile;
    if (process == nullptr || process[0] == '\0' || signo <= 0 || signo >= NSIG) {
        qdp::warn("stoppid: bad arguments");
        return -1;
    }
    return qdp::guard("stoppid", -1, [&] {
        return signal_by_name(process, signo);
    });
}
