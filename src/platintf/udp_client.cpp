// One-shot UDP request/response toward a platform server or a local process:
// one socket per call, one datagram out, at most one datagram back.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "common/socket.h"
#include "common/udp_listeners.h"
#include "platintf/hgprocessplatintf.h"

namespace {

enum class Variant { v4, v6, big };

struct Address {
    union {
        struct sockaddr_in v4;
        struct sockaddr_in6 v6;
        struct sockaddr_storage any;
    };
    socklen_t len;
};

constexpr int kMacWidth = static_cast<int>(sizeof deviceinfo.mac);

const char *text_or_empty(const char *s) { return s != nullptr ? s : ""; }

// Builds ip:port (or the wildcard address with a null ip) for the variant's
// family.
bool make_address(Variant v, const char *ip, unsigned port, Address &a) {
    std::memset(&a.any, 0, sizeof a.any);
    if (v == Variant::v6) {
        a.len = sizeof a.v6;
        return qdq::ipv6_address(ip, port, a.v6);
    }
    a.len = sizeof a.v4;
    return qdq::ipv4_address(ip, port, a.v4);
}

constexpr int kNoListener = -2;

void log_sent(unsigned localport, const char *ip_text, unsigned port, const char *msg, ssize_t sent) {
    QDQ_LOG("send success, ret:%d\n%s\n", static_cast<int>(sent), msg);
    AppMgrLogLine(qdq::kLogTrace, "%s line %d %s,localport %d:send to %s:%d %s", qdq::kPlatModule, __LINE__,
                  "HGSendUdpRequest", static_cast<int>(localport), ip_text, static_cast<int>(port), msg);
}

// A send-only request from a port where a local service listens leaves
// through the service's socket, so that the answer reaches the service
// (see common/udp_listeners.h). kNoListener when no service listens there.
int send_through_listener(unsigned localport, const char *ip, unsigned port, const char *msg) {
    Address addr;
    if (!make_address(Variant::v4, ip, port, addr)) return kNoListener;  // refused on the usual path
    const ssize_t sent = qdq::send_from_listener(localport, msg, std::strlen(msg),
                                                 reinterpret_cast<struct sockaddr *>(&addr.any), addr.len);
    if (sent < 0 && errno == ENOENT) return kNoListener;
    if (sent < 0) {
        QDQ_LOG("sendto error, errno=%s ret:%d\n", std::strerror(errno), static_cast<int>(sent));
        return -1;
    }
    log_sent(localport, text_or_empty(ip), port, msg, sent);
    return 0;
}

int udp_exchange(Variant v, unsigned localport, const char *ip, unsigned port, const char *msg,
                 char *reply, unsigned timeout) {
    const bool v6 = v == Variant::v6;
    const bool big = v == Variant::big;
    const size_t cap = big ? 102400 : 512;
    const char *ip_text = text_or_empty(ip);

    if (big)
        QDQ_LOG("!!!!!!HGSendUdpRequest_big start! %s %d\n", ip_text, static_cast<int>(port));
    else
        QDQ_LOG("HGSendUdpRequest start! %s remote port:%d\tlocal port:%d\n", ip_text,
                static_cast<int>(port), static_cast<int>(localport));
    if (msg == nullptr) {
        if (v6)
            QDQ_LOG("sendbuf is NULL, return!");
        else
            QDQ_LOG("sendbuf is NULL, return!\n");
        return -1;
    }

    if (v == Variant::v4 && timeout == 0 && localport != 0) {
        const int sent = send_through_listener(localport, ip, port, msg);
        if (sent != kNoListener) return sent;
    }

    qdq::Fd sock(socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!sock.valid()) {
        QDQ_LOG("create socket, errno=%s\n", std::strerror(errno));
        return -1;
    }
    QDQ_LOG("socket:%d", sock.get());
    if (qdq::set_reuseaddr(sock.get()) == 0)
        QDQ_LOG("set address reuse succ!\n");
    else
        QDQ_LOG("set address reuse fail! errno=%s\n", std::strerror(errno));

    Address addr;
    if (localport != 0) {
        make_address(v, nullptr, localport, addr);
        if (bind(sock.get(), reinterpret_cast<struct sockaddr *>(&addr.any), addr.len) < 0) {
            QDQ_LOG("bind failed, errno=%s\n", std::strerror(errno));
            return -1;
        }
    }
    // A malformed address is refused rather than sent to the wildcard
    // address (which would reach this host itself).
    if (!make_address(v, ip, port, addr)) {
        errno = EINVAL;
        QDQ_LOG("inet_aton error, errno=%s\n", std::strerror(errno));
        return -1;
    }

    const size_t len = std::strlen(msg);
    ssize_t sent;
    do {
        sent = sendto(sock.get(), msg, len, 0, reinterpret_cast<struct sockaddr *>(&addr.any),
                      addr.len);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        QDQ_LOG("sendto error, errno=%s ret:%d\n", std::strerror(errno), static_cast<int>(sent));
        return -1;
    }
    if (big) {
        QDQ_LOG("send success, ret:%d,mac=%.*s\n%s\n", static_cast<int>(sent), kMacWidth,
                deviceinfo.mac, msg);
    } else if (v6) {
        QDQ_LOG("send success, ret:%d\n%s\n", static_cast<int>(sent), msg);
        AppMgrLogLine(qdq::kLogTrace, "%s:%s", "HGSendUdpRequest_v6", msg);
    } else {
        log_sent(localport, ip_text, port, msg, sent);
    }
    if (timeout == 0) return 0;

    if (!WaitPlatformReply(sock.get(), timeout)) return -1;
    ssize_t got = -1;
    if (reply == nullptr) {
        errno = EFAULT;
    } else {
        std::memset(reply, 0, cap);
        addr.len = sizeof addr.any;
        do {
            got = recvfrom(sock.get(), reply, cap, 0, reinterpret_cast<struct sockaddr *>(&addr.any),
                           &addr.len);
        } while (got < 0 && errno == EINTR);
    }
    if (got < 0) {
        QDQ_LOG("recvfrom Error, errno=%s\n", std::strerror(errno));
        return -1;
    }
    // A full-size reply has no NUL: print it by its length.
    const int n = static_cast<int>(got);
    if (big) {
        QDQ_LOG("rcv:len=%d,mac=%.*s\n%.*s\n", n, kMacWidth, deviceinfo.mac, n, reply);
    } else {
        QDQ_LOG("rcv:len=%d\n%.*s\n", n, n, reply);
        if (v6) {
            AppMgrLogLine(qdq::kLogTrace, "%s:%.*s", "HGSendUdpRequest_v6", n, reply);
        } else {
            char from[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, &addr.v4.sin_addr, from, sizeof from);
            AppMgrLogLine(qdq::kLogTrace, "%s line %d %s: receive from %s:%d %.*s",
                          qdq::kPlatModule, __LINE__, "HGSendUdpRequest", from,
                          static_cast<int>(ntohs(addr.v4.sin_port)), n, reply);
        }
    }
    sock.reset();
    QDQ_LOG("HGSendUdpRequest success!\n");
    return big ? n : 0;
}

}  // namespace

int HGSendUdpRequest(unsigned localport, const char *ip, unsigned port, const char *msg,
                     char *reply, unsigned timeout) {
    return udp_exchange(Variant::v4, localport, ip, port, msg, reply, timeout);
}

int HGSendUdpRequest_v6(unsigned localport, const char *ip6, unsigned port, const char *msg,
                        char *reply, unsigned timeout) {
    return udp_exchange(Variant::v6, localport, ip6, port, msg, reply, timeout);
}

int HGSendUdpRequest_big(unsigned localport, const char *ip, unsigned port, const char *msg,
                         char *reply, unsigned timeout) {
    return udp_exchange(Variant::big, localport, ip, port, msg, reply, timeout);
}
