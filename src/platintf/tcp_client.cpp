// Request/response with a platform server over the platform record's TCP
// connection, which is opened on first use and outlives the call.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "common/fd_slots.h"
#include "common/log.h"
#include "common/socket.h"
#include "platintf/hgprocessplatintf.h"

namespace {

constexpr size_t kReplySize = 512;

const char *address_text(const struct sockaddr_in &a, char (&buf)[INET_ADDRSTRLEN]) {
    if (inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf) == nullptr) buf[0] = '\0';
    return buf;
}

// Opens a connection from the record's `localport` to `curip`:`port`.
// Returns the connected descriptor or -1 (closed again on failure). The
// record's `socketfd` is not touched here: the caller publishes the
// connection once it is connected, so that nobody else ever closes, or
// sends on, a number this function may still close.
int open_connection(platinfo *rec, bool v6) {
    const unsigned localport = rec->localport;
    const unsigned port = rec->port;
    char curip[64];
    std::snprintf(curip, sizeof curip, "%s", rec->curip);
    QDQ_LOG("curip:%s port:%d\tlocalport:%d\n", curip, static_cast<int>(port),
            static_cast<int>(localport));

    qdq::Fd sock(socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock.valid()) {
        QDQ_LOG("socket error, errno=%s\n", std::strerror(errno));
        return -1;
    }
    if (v6) {
        // Already close-on-exec from creation; this reports it.
        if (qdq::set_cloexec(sock.get()) == 0)
            QDQ_LOG("set FD_CLOEXEC succ!\n");
        else
            QDQ_LOG("set FD_CLOEXEC fail!\n");
    }
    QDQ_LOG("socket succ, socket:%d", sock.get());
    if (qdq::set_reuseaddr(sock.get()) == 0)
        QDQ_LOG("set address reuse succ!\n");
    else
        QDQ_LOG("set address reuse fail! errno=%s\n", std::strerror(errno));

    struct sockaddr_in local4, remote4;
    struct sockaddr_in6 local6, remote6;
    struct sockaddr *local, *remote;
    socklen_t addrlen;
    bool valid;
    if (v6) {
        qdq::ipv6_address(nullptr, localport, local6);
        valid = qdq::ipv6_address(curip, port, remote6);
        local = reinterpret_cast<struct sockaddr *>(&local6);
        remote = reinterpret_cast<struct sockaddr *>(&remote6);
        addrlen = sizeof local6;
    } else {
        qdq::ipv4_address(nullptr, localport, local4);
        valid = qdq::ipv4_address(curip, port, remote4);
        local = reinterpret_cast<struct sockaddr *>(&local4);
        remote = reinterpret_cast<struct sockaddr *>(&remote4);
        addrlen = sizeof local4;
    }
    if (bind(sock.get(), local, addrlen) < 0) {
        QDQ_LOG("bind failed, errno=%s\n", std::strerror(errno));
        return -1;
    }
    // A malformed address is refused rather than connected to the wildcard
    // address (which would reach this host itself).
    if (!valid) {
        errno = EINVAL;
        QDQ_LOG("###inet_aton error, errno=%s\n", std::strerror(errno));
        return -1;
    }
    if (v6) {
        rec->localaddr6 = local6;
        rec->remoteaddr6 = remote6;
    } else {
        rec->localaddr = local4;
        rec->remoteaddr = remote4;
    }
    QDQ_LOG("\n#######connect\n");
    if (connect(sock.get(), remote, addrlen) < 0) {
        QDQ_LOG("connect error! errno=%s\n", std::strerror(errno));
        // The persistent channel may have installed its own connection
        // meanwhile; a registered platform keeps it.
        if (!v6 && rec->regflag == 1 && __atomic_load_n(&rec->socketfd, __ATOMIC_ACQUIRE) > 0)
            QDQ_LOG("platform is registered,no need to close the socket");
        return -1;
    }
    return sock.release();
}

enum class Keep { record, once };

// The connection of one exchange: a duplicate of the record's, or a new
// one (published in the record unless `once`). -1 when none could be had.
int take_connection(platinfo *rec, bool v6, Keep keep) {
    if (keep == Keep::record) {
        const int dup = qdq::duplicate_slot(&rec->socketfd);
        if (dup >= 0) return dup;
    }
    qdq::Fd conn(open_connection(rec, v6));
    if (!conn.valid() || keep == Keep::once) return conn.release();
    qdq::Fd mine(fcntl(conn.get(), F_DUPFD_CLOEXEC, 0));
    if (!mine.valid()) return -1;
    // Another thread may have put its own connection there meanwhile: the
    // record keeps that one, this exchange uses its own.
    if (qdq::install_slot(&rec->socketfd, conn.get())) conn.release();
    return mine.release();
}

int tcp_exchange(bool v6, unsigned plattype, const char *msg, char *reply, unsigned timeout, Keep keep) {
    const char *name = v6 ? "HGSendTcpRequest_v6" : "HGSendTcpRequest";
    if (v6)
        QDQ_LOG("HGSendTcpRegister start!\n");
    else
        QDQ_LOG("HGSendTcpRegister start!");
    if (msg == nullptr) {
        QDQ_LOG("sendbuf is NULL, return!\n");
        return -1;
    }
    // Sized to the message: a fixed frame buffer would overflow on a long
    // one.
    const size_t framelen = std::strlen(msg) + 4;
    std::unique_ptr<unsigned char[]> frame(new (std::nothrow) unsigned char[framelen]);
    if (!frame) return -1;
    if (HgProcessSendTcpMsg(msg, frame.get()) < 0) return -1;

    platinfo *rec = getPlatInfo(static_cast<int>(plattype));
    if (rec == nullptr) {
        QDQ_LOG("platinfo is NULL, return!\n");
        return -1;
    }
    QDQ_LOG("localport:%d\tremoteport:%d", static_cast<int>(rec->localport),
            static_cast<int>(rec->port));

    qdq::Fd conn(take_connection(rec, v6, keep));
    if (!conn.valid()) return -1;
    const int fd = conn.get();
    // Every failure below ends the connection: taken out of the record
    // (when it is still the record's) and closed.
    struct Failure {
        platinfo *rec;
        int fd;
        bool armed = true;
        ~Failure() {
            if (armed) qdq::close_slot_if_same(&rec->socketfd, fd);
        }
    } failure{rec, fd};
    ssize_t sent;
    do {
        // MSG_NOSIGNAL: a vanished server must fail the send, not raise
        // SIGPIPE in the host's daemon.
        sent = send(fd, frame.get(), framelen, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        QDQ_LOG("send error, errno=%s\n", std::strerror(errno));
        return -1;
    }
    const int localport = static_cast<int>(rec->localport);
    char remote[INET_ADDRSTRLEN];
    QDQ_LOG("%s,localport %d", name, localport);
    if (!v6)
        AppMgrLogLine(qdq::kLogTrace, "%s line %d %s,local port %d tcp send to plattype %d %s:%d %s ",
                      qdq::kPlatModule, __LINE__, name, localport, static_cast<int>(plattype),
                      address_text(rec->remoteaddr, remote),
                      static_cast<int>(ntohs(rec->remoteaddr.sin_port)), msg);

    if (!WaitPlatformReply(fd, timeout)) return -1;
    ssize_t got = -1;
    if (reply == nullptr) {
        errno = EFAULT;
    } else {
        std::memset(reply, 0, kReplySize);
        do {
            got = recv(fd, reply, kReplySize, 0);
        } while (got < 0 && errno == EINTR);
    }
    if (got < 0) {
        QDQ_LOG("recvfrom Error, errno=%s\n", std::strerror(errno));
        return -1;
    }
    // The text after the frame header; a full reply has no NUL.
    const char *text = reply + 4;
    const int textlen = static_cast<int>(strnlen(text, kReplySize - 4));
    QDQ_LOG("recv success, rcvtotal:%d\tmsglen:%d\n%.*s\nHGSendTcpRegister success!\n",
            static_cast<int>(got), textlen, textlen, text);
    if (!v6)
        AppMgrLogLine(qdq::kLogTrace, "%s line %d %s,local port %d tcp recv from plattype %d %s:%d %.*s ",
                      qdq::kPlatModule, __LINE__, name, localport, static_cast<int>(plattype),
                      address_text(rec->remoteaddr, remote),
                      static_cast<int>(ntohs(rec->remoteaddr.sin_port)), textlen, text);
    failure.armed = false;  // the connection stays with the record
    return 0;
}

}  // namespace

int HGSendTcpRequest(unsigned plattype, const char *msg, char *reply, unsigned timeout) {
    return tcp_exchange(false, plattype, msg, reply, timeout, Keep::record);
}

int HGSendTcpRequest_v6(unsigned plattype, const char *msg, char *reply, unsigned timeout) {
    return tcp_exchange(true, plattype, msg, reply, timeout, Keep::record);
}

int HGSendTcpRequestOnce(unsigned plattype, const char *msg, char *reply, unsigned timeout) {
    return tcp_exchange(deviceinfo.ipmode == AF_INET6, plattype, msg, reply, timeout, Keep::once);
}
