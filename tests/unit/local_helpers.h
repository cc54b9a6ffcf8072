// Clients and waits for the local request service tests. Included by one
// file per test program (it defines the sanitizer options below).
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "net_helpers.h"
#include "platform_double.h"

#if defined(__SANITIZE_ADDRESS__)
// GCC 12's ASan fails a CHECK when a cancelled thread unwinds
// (google/sanitizers#1399) unless frames live on its fake stacks.
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options() { return "detect_stack_use_after_return=1"; }
#endif

namespace local {

// Polls `pred` for up to `ms` milliseconds.
template <class Pred>
bool wait_until(Pred pred, int ms = 5000) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

inline long threads() { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); }

inline sockaddr_in loopback(unsigned port) {
    sockaddr_in a{};
    qdq::ipv4_address("127.0.0.1", port, a);
    return a;
}

// A UDP client on loopback.
struct Udp {
    qdq::Fd fd = net::bound(SOCK_DGRAM);
    void send(unsigned port, const std::string &msg) const {
        sockaddr_in to = loopback(port);
        sendto(fd.get(), msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    // The next datagram, or "<none>" after `ms` milliseconds.
    std::string recv(int ms = 5000) const {
        if (!net::wait_in(fd.get(), ms)) return "<none>";
        std::string s(65536, '\0');
        ssize_t n = ::recv(fd.get(), &s[0], s.size(), 0);
        return s.substr(0, n > 0 ? size_t(n) : 0);
    }
};

// A TCP connection to `port` on loopback (invalid when refused).
inline qdq::Fd tcp_connect(unsigned port) {
    qdq::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a = loopback(port);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) fd.reset();
    return fd;
}

// The peer closed (or reset) the connection within 5 s, sending nothing.
inline bool closed(int fd) {
    char byte;
    return net::wait_in(fd) && recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

// The reply frame's payload, "<closed>" when the service closed without
// one. Afterwards the service must have closed the connection.
inline std::string tcp_reply(int fd) {
    const std::string head = net::read_n(fd, 4);
    if (head.size() < 4) return "<closed>";
    uint32_t n;
    std::memcpy(&n, head.data(), 4);
    const std::string payload = net::read_n(fd, ntohl(n));
    EXPECT_TRUE(closed(fd)) << "a second reply or an open connection";
    return payload;
}

// Sends `bytes` on a new connection to `port` (closing our side after them
// when asked) and gives the reply.
inline std::string tcp_exchange(unsigned port, const std::string &bytes, bool close_write = false) {
    qdq::Fd fd = tcp_connect(port);
    if (!fd.valid()) return "<no connection>";
    send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (close_write) shutdown(fd.get(), SHUT_WR);
    return tcp_reply(fd.get());
}

// Integer member `key` of a JSON text, or -999 when absent or not JSON.
inline int json_int(const std::string &text, const char *key) {
    cJSON *o = cJSON_Parse(text.c_str());
    const cJSON *v = cJSON_GetObjectItem(o, key);
    int r = cJSON_IsNumber(v) ? v->valueint : -999;
    cJSON_Delete(o);
    return r;
}

// A command that every dispatcher echoes (unknown method), numbered.
inline std::string ping(int seq, size_t pad = 0) {
    return "{\"RPCMethod\":\"LocalPing\",\"Seq\":" + std::to_string(seq) + ",\"Pad\":\"" + std::string(pad, 'p') +
           "\"}";
}

// Waits until `port` answers a command over UDP.
inline bool udp_answers(unsigned port) {
    return wait_until([&] {
        Udp c;
        c.send(port, ping(0));
        return c.recv(50) != "<none>";
    });
}

// A port that was free a moment ago.
inline unsigned free_port(int type) { return net::port_of(net::bound(type).get()); }

inline size_t count_calls(const std::string &line) {
    return qdq_test::platform().calls_named(line).size();
}

}  // namespace local
