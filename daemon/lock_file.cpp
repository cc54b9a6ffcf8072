#include "lock_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/paths.h"

namespace qdd {

bool take_lock(std::string &error) {
    const std::string path = qdq::path(kLockFile);
    // Close-on-exec: a plugin or shell command must not inherit the lock and
    // keep the root locked after the daemon ended. Never closed: the lock
    // lasts as long as the process.
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = "cannot open the lock file " + path + ": " + std::strerror(errno);
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        char pid[32] = "";
        const ssize_t n = pread(fd, pid, sizeof pid - 1, 0);
        if (n > 0) pid[n] = '\0';
        pid[std::strcspn(pid, "\n")] = '\0';
        close(fd);
        error = err == EWOULDBLOCK ? "another qdquickd" + (pid[0] != '\0' ? " (pid " + std::string(pid) + ")" : "") +
                                         " already runs with the root of " + path
                                   : "cannot lock " + path + ": " + std::strerror(err);
        return false;
    }
    char text[32];
    const int len = std::snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text, static_cast<std::size_t>(len), 0) != len) {
        // The pid is only a courtesy for the message above; the lock holds.
    }
    return true;
}

}  // namespace qdd
