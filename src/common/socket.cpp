#include "common/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
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

namespace {

// Milliseconds left until `deadline`, for poll(); -1 waits for ever.
int poll_ms(double seconds, const struct timespec &deadline) {
    if (seconds < 0.0) return -1;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long ms = (deadline.tv_sec - now.tv_sec) * 1000LL + (deadline.tv_nsec - now.tv_nsec) / 1000000LL;
    return ms < 0 ? 0 : static_cast<int>(ms);
}

struct timespec deadline_after(double seconds) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    long long ns = scaled(seconds > 0.0 ? seconds : 0.0).count();
    if (seconds > 0.0 && ns < 1000000) ns = 1000000;  // a positive wait never becomes a poll
    t.tv_sec += static_cast<time_t>(ns / 1000000000LL);
    t.tv_nsec += static_cast<long>(ns % 1000000000LL);
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

// Waits for `events` on fd; 1 ready, 0 time-out, -1 error. poll() rather
// than select(): a host daemon may hold more than FD_SETSIZE descriptors.
int wait_for(int fd, short events, double seconds) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    const struct timespec deadline = deadline_after(seconds);
    for (;;) {
        struct pollfd p = {fd, events, 0};
        int ret = poll(&p, 1, poll_ms(seconds, deadline));
        if (ret < 0 && errno == EINTR) continue;
        if (ret <= 0) return ret < 0 ? -1 : 0;
        return 1;
    }
}

}  // namespace

int wait_readable(int fd, double seconds) { return wait_for(fd, POLLIN, seconds); }

int connect_within(int fd, const struct sockaddr *to, socklen_t len, double seconds) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return -1;
    int ret = ::connect(fd, to, len);
    if (ret < 0 && errno == EINPROGRESS) {
        int ready = wait_for(fd, POLLOUT, seconds);
        if (ready <= 0) {
            if (ready == 0) errno = ETIMEDOUT;
            ret = -1;
        } else {
            int err = 0;
            socklen_t errlen = sizeof err;
            if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &errlen) < 0) err = errno;
            ret = err == 0 ? 0 : -1;
            if (err != 0) errno = err;
        }
    }
    int saved = errno;
    fcntl(fd, F_SETFL, flags);
    errno = saved;
    return ret;
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
