#include "common/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/clock.h"

namespace qdq {

void Fd::reset(int fd) {
    if (fd_ >= 0 && fd_ != fd) ::close(fd_);
    fd_ = fd;
}

int set_cloexec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    if (flags < 0) return -1;
    return fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0 ? -1 : 0;
}

int set_reuseaddr(int fd) {
    int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0 ? -1 : 0;
}

int wait_readable(int fd, double seconds) {
    // FD_SET past FD_SETSIZE writes outside the set.
    if (fd < 0 || fd >= FD_SETSIZE) {
        errno = EBADF;
        return -1;
    }
    struct timeval tv = timeval_for(seconds > 0.0 ? seconds : 0.0);
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        // Linux leaves the time still to wait in tv, so a resumed wait does
        // not start over.
        int ret = select(fd + 1, &readable, nullptr, nullptr, seconds < 0.0 ? nullptr : &tv);
        if (ret < 0 && errno == EINTR) continue;
        if (ret <= 0) return ret < 0 ? -1 : 0;
        return FD_ISSET(fd, &readable) ? 1 : 0;
    }
}

bool ipv4_address(const char *text, unsigned port, struct sockaddr_in &out) {
    std::memset(&out, 0, sizeof out);
    out.sin_family = AF_INET;
    out.sin_port = htons(static_cast<uint16_t>(port));
    out.sin_addr.s_addr = htonl(INADDR_ANY);
    if (text == nullptr) return true;
    struct in_addr addr;
    if (inet_pton(AF_INET, text, &addr) != 1) return false;
    out.sin_addr = addr;
    return true;
}

bool ipv6_address(const char *text, unsigned port, struct sockaddr_in6 &out) {
    std::memset(&out, 0, sizeof out);
    out.sin6_family = AF_INET6;
    out.sin6_port = htons(static_cast<uint16_t>(port));
    out.sin6_addr = in6addr_any;
    if (text == nullptr) return true;
    struct in6_addr addr;
    if (inet_pton(AF_INET6, text, &addr) != 1) return false;
    out.sin6_addr = addr;
    return true;
}

}  // namespace qdq
