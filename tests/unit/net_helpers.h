// Loopback sockets and descriptor counting for the transport tests.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "common/socket.h"
#include "test_env.h"

namespace net {

using qdq_test::open_fds;

// The port of an IPv4 or IPv6 address (the same place in both).
inline unsigned port_in(const sockaddr_storage &a) {
    return ntohs(reinterpret_cast<const sockaddr_in &>(a).sin_port);
}

inline unsigned port_of(int fd) {
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return port_in(a);
}

// Bound to the loopback address (127.0.0.1 or ::1) on a port the system
// picked, without SO_REUSEADDR so the port is really taken; TCP ones listen
// when asked. Not valid when the bind failed.
inline qdq::Fd bound(int type, bool listening = false, int family = AF_INET) {
    qdq::Fd fd(socket(family, type, 0));
    sockaddr_in a4{};
    sockaddr_in6 a6{};
    qdq::ipv4_address("127.0.0.1", 0, a4);
    qdq::ipv6_address("::1", 0, a6);
    const bool v6 = family == AF_INET6;
    if (bind(fd.get(), v6 ? reinterpret_cast<sockaddr *>(&a6) : reinterpret_cast<sockaddr *>(&a4),
             v6 ? sizeof a6 : sizeof a4) != 0)
        fd.reset();
    if (listening) listen(fd.get(), 4);
    return fd;
}

// A TCP connection to 127.0.0.1:port (not valid when refused).
inline qdq::Fd connected(unsigned port) {
    qdq::Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a{};
    qdq::ipv4_address("127.0.0.1", port, a);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) fd.reset();
    return fd;
}

// Bounded waits, so that a lost message fails a test instead of hanging it.
inline bool wait_in(int fd, int ms = 5000) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

// Up to n bytes, stopping at close or after 5 s of silence.
inline std::string read_n(int fd, size_t n) {
    std::string s(n, '\0');
    size_t got = 0;
    for (ssize_t r = 1; got < n && r > 0 && wait_in(fd); got += size_t(r > 0 ? r : 0))
        r = recv(fd, &s[got], n - got, 0);
    return s.substr(0, got);
}

inline std::string frame(const std::string &payload) {
    uint32_t n = htonl(uint32_t(payload.size()));
    return std::string(reinterpret_cast<char *>(&n), 4) + payload;
}

inline bool logged(const char *file, const std::string &what) {
    return qdq_test::read_file(qdq_test::in_root(file)).find(what) != std::string::npos;
}

}  // namespace net
