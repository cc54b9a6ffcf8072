// Local UDP request service: JSON command datagrams on the manage
// platform's local port (plattype 2) or on 18401 (plattype 5), each answered
// with the dispatcher's reply as one datagram to its sender.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/cancel.h"
#include "common/fd_slots.h"
#include "common/json.h"
#include "common/log.h"
#include "common/socket.h"
#include "common/thread.h"
#include "common/udp_listeners.h"
#include "localsvc/quickinstall.h"

namespace {

// Largest request datagram. The buffer holds one byte more, so that a
// datagram of the full size is still a terminated text.
constexpr std::size_t kRequestMax = 2048;

// The service socket. Once bound it is recorded in the listener registry,
// which owns it from then on: whoever takes it out of the registry closes
// it (the service when it re-opens or ends, or a platform disconnect, which
// closes the socket the manage record publishes). For plattype 2 it is
// published in manageplatinfo.socketfd while that holds no descriptor. A
// connect that takes it out of the record leaves it open: the service goes
// on answering until a disconnect closes it.
class ServiceSocket {
public:
    explicit ServiceSocket(int type) : type_(type) {}
    ~ServiceSocket() { drop(); }
    ServiceSocket(const ServiceSocket &) = delete;
    ServiceSocket &operator=(const ServiceSocket &) = delete;

    bool open() {
        fd_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        return fd_.valid();
    }
    // After the bind: recorded for `port` and, for plattype 2, published.
    void listening(unsigned port) {
        id_ = qdq::listener_opened(fd_.get(), port);
        if (id_ != 0 && type_ == QDQ_PLAT_MANAGE) qdq::install_slot(&manageplatinfo.socketfd, fd_.get());
    }
    // Closes the socket unless someone else has taken it; false then.
    bool drop() {
        if (!fd_.valid()) return true;
        if (id_ == 0) {
            fd_.reset();  // never recorded nor published: nobody else knows it
            return true;
        }
        const bool ours = qdq::close_listener(id_, type_ == QDQ_PLAT_MANAGE ? &manageplatinfo.socketfd : nullptr);
        id_ = 0;
        fd_.release();  // closed by close_listener, or not ours to close
        return ours;
    }
    // False once the socket was taken (a disconnect): the service then ends
    // without touching the descriptor again.
    bool ours() const { return id_ == 0 || qdq::listener_alive(id_); }
    int get() const { return fd_.get(); }

private:
    int type_;
    qdq::Fd fd_;
    unsigned long id_ = 0;
};

enum class Next { Reopen, Taken };

void answer(int fd, const char *request, ssize_t len, const sockaddr_in &from, int *plattype) {
    char addr[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &from.sin_addr, addr, sizeof addr);
    const int port = ntohs(from.sin_port);
    QDQ_LOG("recv length:%d\n", static_cast<int>(len));
    QDQ_LOG("receive buf:\n%s", request);
    AppMgrLogLine(qdq::kLogTrace, "%s line %d %s: receive from %s:%d %s", qdq::kLocalModule, __LINE__,
                  "StartProcessUdpRequest", addr, port, request);

    char *raw = nullptr;
    const int ret = HGProcessPlatJsonMsg(request, &raw, plattype);
    qdq::CText reply(raw);
    if (ret == 0) {
        QDQ_LOG("send buf is NULL, continue\n");
        return;
    }
    if (!reply) return;
    QDQ_LOG("sendbuf: %s\n", reply.get());
    AppMgrLogLine(qdq::kLogTrace, "%s line %d %s: sendto %s:%d %s", qdq::kLocalModule, __LINE__,
                  "StartProcessUdpRequest", addr, port, reply.get());
    ssize_t sent = sendto(fd, reply.get(), std::strlen(reply.get()), 0,
                          reinterpret_cast<const sockaddr *>(&from), sizeof from);
    QDQ_LOG("sendret: %d\n", static_cast<int>(sent));
    if (sent == -1) QDQ_LOG("send is return -1 , errno=%s\n", std::strerror(errno));
}

// Answers datagrams until the socket has to be re-opened or was taken.
Next serve(ServiceSocket &sock, int *plattype) {
    char buf[kRequestMax + 1];
    for (;;) {
        std::memset(buf, 0, sizeof buf);
        int ready;
        {
            qdq::CancelWindow window;
            ready = qdq::wait_readable(sock.get(), -1);
        }
        if (!sock.ours()) return Next::Taken;
        if (ready < 0) {
            AppMgrLogLine(qdq::kLogTrace, "Error:  in select\n");
            return Next::Reopen;
        }
        if (ready == 0) {
            AppMgrLogLine(qdq::kLogTrace, "Error: FD_ISSET return 0\n");
            return Next::Reopen;
        }
        sockaddr_in from{};
        socklen_t fromlen = sizeof from;
        // Readiness was just seen; not blocking here keeps a datagram that
        // vanished in between from stalling the thread outside its wait.
        ssize_t n = recvfrom(sock.get(), buf, kRequestMax, MSG_DONTWAIT,
                             reinterpret_cast<sockaddr *>(&from), &fromlen);
        if (n < 0) {
            const int err = errno;
            QDQ_LOG("recvfrom Error!errno: %d\n", err);
            if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) continue;
            AppMgrLogLine(qdq::kLogTrace, "Error: recvfrom err,reopen socket");
            return Next::Reopen;
        }
        if (*plattype == QDQ_PLAT_MANAGE && !qdq::from_manage_platform(from)) continue;
        answer(sock.get(), buf, n, from, plattype);
    }
}

void *udp_entry(void *arg) {
    StartProcessUdpRequest(static_cast<int *>(arg));
    return nullptr;
}

void *quick_entry(void *) {
    StartProcessPrivateUdpRequest();
    return nullptr;
}

}  // namespace

// The threads that run this are created detached (the timer's expiry
// threads included), so the body does not detach itself.
int StartProcessUdpRequest(int *plattype) {
    qdq::NoCancel no_cancel;  // cancellable only inside its wait
    const int type = plattype != nullptr ? *plattype : -1;
    unsigned port;
    if (type == QDQ_PLAT_MANAGE) {
        port = manageplatinfo.localport;
        manageplatinfo.tid = pthread_self();
    } else if (type == QDQ_PLAT_LOCALUDP) {
        port = qdq::kLocalUdpPort;
    } else {
        QDQ_LOG("StartProcessUdpRequest: invalid plattype %d", type);
        return 0;
    }
    QDQ_LOG("StartProcessUdpRequest plattype:%d,port:%d\n", type, static_cast<int>(port));

    ServiceSocket sock(type);
    for (;;) {
        if (!sock.open()) {
            QDQ_LOG("create socket error, errno=%s\n", std::strerror(errno));
            return -1;
        }
        if (qdq::set_reuseaddr(sock.get()) == 0)
            QDQ_LOG("set address reuse succ!\n");
        else
            QDQ_LOG("set address reuse fail!\n");
        sockaddr_in addr;
        qdq::ipv4_address(nullptr, port, addr);
        if (bind(sock.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
            QDQ_LOG("bind failed, errno=%s\n", std::strerror(errno));
            return -1;
        }
        sock.listening(port);
        qdq::open_firewall_port("udp", port);
        if (serve(sock, plattype) == Next::Taken || !sock.drop()) {
            QDQ_LOG("StartProcessUdpRequest: socket taken by the platform session, end\n");
            return 0;
        }
    }
}

extern "C" QDQ_API int CreatePrecessUdpReqThread(int *plattype) {
    const int value = plattype != nullptr ? *plattype : -1;
    QDQ_LOG("CreatePrecessUdpReqThread for plat %d!\n!", value);
    int rc;
    if (plattype == nullptr)
        rc = EINVAL;
    else if (value != QDQ_PLAT_QUICKINSTALL)
        rc = qdq::start_thread(nullptr, udp_entry, plattype, true, "qdq-udp");
    else
        rc = qdq::start_thread(nullptr, quick_entry, nullptr, true, "qdq-quick");
    if (rc != 0) QDQ_LOG("Create CreatePrecessUdpReqThread thread failed\n!");
    QDQ_LOG("CreatePrecessUdpReqThread end\n!");
    return rc;
}
