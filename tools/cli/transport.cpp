// The client's two transports: one UDP datagram each way, or one
// length-framed TCP message each way (4-byte big-endian length, payload).
// Both share one deadline: --timeout covers connecting, sending and the
// whole reply.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <chrono>
#include <cstring>
#include <string>

#include "cli.h"

namespace cli {

namespace {

using Clock = std::chrono::steady_clock;

// Frames longer than this are not a reply of the agent.
constexpr uint32_t kMaxFrame = 16u << 20;

class Socket {
public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ >= 0) close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

std::string sys_error(const std::string &what) { return what + ": " + std::strerror(errno); }

Error refused(const Target &t) {
    return Error(kRefused, "refused: nothing listens on " + t.host + " port " + std::to_string(t.port));
}

Error timed_out(const Target &t) {
    char secs[32];
    std::snprintf(secs, sizeof secs, "%g", t.timeout);
    return Error(kTimeout, "time-out: no reply from " + t.host + " port " + std::to_string(t.port) + " within " +
                               secs + " s");
}

int ms_left(Clock::time_point deadline) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return ms < 0 ? 0 : int(ms);
}

// Waits for `events` until the deadline; false on time-out.
bool wait_for(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        pollfd p{fd, events, 0};
        int r = poll(&p, 1, ms_left(deadline));
        if (r > 0) return true;
        if (r == 0) return false;
        if (errno != EINTR) throw Error(kError, sys_error("poll"));
    }
}

// Opens a socket of `type` connected (for UDP: associated) to the target,
// waiting for a TCP connection until `deadline`.
int open_connected(const Target &t, int type, Clock::time_point deadline) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = type;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *list = nullptr;
    const std::string port = std::to_string(t.port);
    int rc = getaddrinfo(t.host.c_str(), port.c_str(), &hints, &list);
    if (rc != 0) throw Error(kError, "cannot resolve " + t.host + ": " + gai_strerror(rc));
    const addrinfo a = *list;
    sockaddr_storage to{};
    std::memcpy(&to, list->ai_addr, list->ai_addrlen);
    freeaddrinfo(list);

    int fd = socket(a.ai_family, a.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a.ai_protocol);
    if (fd < 0) throw Error(kError, sys_error("socket"));
    Socket guard(fd);
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), a.ai_addrlen) != 0) {
        if (errno == ECONNREFUSED) throw refused(t);
        if (errno != EINPROGRESS) throw Error(kError, sys_error("connect"));
        if (!wait_for(fd, POLLOUT, deadline)) throw timed_out(t);
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        errno = err;
        if (err == ECONNREFUSED) throw refused(t);
        if (err != 0) throw Error(kError, sys_error("connect"));
    }
    return guard.release();
}

void send_all(const Target &t, int fd, const std::string &data, Clock::time_point deadline) {
    for (size_t done = 0; done < data.size();) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += size_t(n);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!wait_for(fd, POLLOUT, deadline)) throw timed_out(t);
        } else if (errno == ECONNREFUSED) {
            throw refused(t);
        } else if (errno != EINTR) {
            throw Error(kError, sys_error("send"));
        }
    }
}

// Reads exactly `n` bytes; returns fewer only when the peer closed.
std::string read_exactly(const Target &t, int fd, size_t n, Clock::time_point deadline) {
    std::string out(n, '\0');
    size_t got = 0;
    while (got < n) {
        if (!wait_for(fd, POLLIN, deadline)) throw timed_out(t);
        ssize_t r = recv(fd, &out[got], n - got, 0);
        if (r > 0) {
            got += size_t(r);
        } else if (r == 0 || errno == ECONNRESET) {
            break;
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            throw Error(kError, sys_error("recv"));
        }
    }
    out.resize(got);
    return out;
}

}  // namespace

std::string exchange_udp(const Target &t, const std::string &payload) {
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(t.timeout));
    // Associated with the target, so that an ICMP port unreachable comes
    // back as ECONNREFUSED instead of a silent time-out.
    Socket sock(open_connected(t, SOCK_DGRAM, deadline));
    send_all(t, sock.get(), payload, deadline);
    std::string buf(65536, '\0');
    for (;;) {
        if (!wait_for(sock.get(), POLLIN, deadline)) throw timed_out(t);
        ssize_t n = recv(sock.get(), &buf[0], buf.size(), 0);
        if (n >= 0) return buf.substr(0, size_t(n));
        if (errno == ECONNREFUSED) throw refused(t);
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) throw Error(kError, sys_error("recv"));
    }
}

std::string exchange_tcp(const Target &t, const std::string &payload) {
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(t.timeout));
    Socket sock(open_connected(t, SOCK_STREAM, deadline));
    const uint32_t len = htonl(uint32_t(payload.size()));
    send_all(t, sock.get(), std::string(reinterpret_cast<const char *>(&len), 4) + payload, deadline);

    const std::string head = read_exactly(t, sock.get(), 4, deadline);
    if (head.empty()) throw Error(kNoReply, "the service closed the connection without a reply");
    if (head.size() < 4) throw Error(kMalformed, "reply frame cut short in its length");
    uint32_t n;
    std::memcpy(&n, head.data(), 4);
    n = ntohl(n);
    if (n > kMaxFrame) throw Error(kMalformed, "reply frame length " + std::to_string(n) + " is not plausible");
    std::string body = read_exactly(t, sock.get(), n, deadline);
    if (body.size() < n)
        throw Error(kMalformed, "reply frame cut short: " + std::to_string(body.size()) + " of " +
                                    std::to_string(n) + " bytes");
    return body;
}

}  // namespace cli
