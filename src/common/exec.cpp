// Synchronous shell commands: a run that leaves no zombies, two runs that
// read the command's output, and the memory-map dump.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "common/paths.h"
#include "qdquick/qdquick.h"

namespace {
// Output line and word buffers of the callers (out_line, out_word).
constexpr std::size_t kCmdLineSize = 256;

// Closes a popen stream on every path.
class Pipe {
public:
    explicit Pipe(const char *command) : fp_(popen(command, "re")) {}
    ~Pipe() { close(); }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    FILE *get() const { return fp_; }
    int close() {
        int rc = 0;
        if (fp_ != nullptr) rc = pclose(fp_);
        fp_ = nullptr;
        return rc;
    }

private:
    FILE *fp_;
};
}  // namespace

// Children are reaped by the kernel (SIGCHLD ignored with SA_NOCLDWAIT), so
// commands started from any thread never linger as zombies. The price: the
// exit status is usually lost, and no caller relies on it.
extern "C" QDQ_API int safeSystem(const char *command) {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = SIG_IGN;
    sa.sa_flags = SA_NOCLDWAIT;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGCHLD, &sa, nullptr);
    return std::system(command);
}

// 1 as soon as an output line contains `needle` (copied to out_line), 0 when
// the output ends without one or the command cannot start. No command or no
// needle counts as found.
extern "C" QDQ_API int chk_cmd_res(const char *command, const char *needle, char *out_line) {
    if (command == nullptr || needle == nullptr) return 1;
    Pipe pipe(command);
    if (pipe.get() == nullptr) return 0;
    char line[kCmdLineSize];
    // A read error ends the scan like end of file, so it can never spin.
    while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
        if (std::strstr(line, needle) != nullptr) {
            if (out_line != nullptr) std::snprintf(out_line, kCmdLineSize, "%s", line);
            return 1;
        }
    }
    return 0;
}

// The first whitespace-delimited word of the output, cut to 255 characters
// so that it always fits out_word. Returns the pclose result.
extern "C" QDQ_API int get_cmd_res(const char *command, char *out_word) {
    if (command == nullptr) return -1;
    Pipe pipe(command);
    if (pipe.get() == nullptr) return -1;
    if (out_word != nullptr) {
        if (std::fscanf(pipe.get(), "%255s", out_word) != 1) {
            // Nothing read: out_word keeps its content.
        }
    }
    return pipe.close();
}

// Diagnostic: the process's memory map to /var/quickinstall_<pid>.txt.
extern "C" QDQ_API int dumpmapsinfo(void) {
    int pid = static_cast<int>(getpid());
    char name[64];
    std::snprintf(name, sizeof name, "/var/quickinstall_%d.txt", pid);
    std::string target;
    try {
        target = qdq::path(name);
    } catch (const std::exception &) {
        return -1;
    }
    char command[256];
    int n = std::snprintf(command, sizeof command, "cat /proc/%d/maps > '%s'", pid, target.c_str());
    // A cut command would write somewhere else; refuse it. The root is the
    // operator's own setting, and a quote in it would break the quoting.
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof command || target.find('\'') != std::string::npos)
        return -1;
    return std::system(command);
}
