// Local UDP request service: JSON command datagrams on the manage
// platform's local port (plattype 2) or on 18401 (plattype 5), each answered
// with the dispatcher's reply as one datagram to its sender.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/json.h"
#include "common/log.h"
#include "common/socket.h"
#include "common/thread.h"
#include "localsvc/quickinstall.h"

namespace {

// Largest request datagram. The buffer holds one byte more, so that a
// datagram of the full size is still a terminated text.
constexpr std::size_t kRequestMax = 2048;

// The service socket. It is closed on every way out but one: when the
// manage platform's service is cancelled in its wait, the canceller (the
// platform disconnect) closes the descriptor it finds in
// manageplatinfo.socketfd; closing it here as well could close an
// unrelated descriptor that took the same number in the meantime.
class ServiceSocket {
public:
    explicit ServiceSocket(int type) : type_(type) {}
    ~ServiceSocket() {
        if (waiting && type_ == QDQ_PLAT_MANAGE)
            fd_.release();
        else
            drop();
    }
    ServiceSocket(const ServiceSocket &) = delete;
    ServiceSocket &operator=(const ServiceSocket &) = delete;

    bool open() {
        drop();
        fd_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!fd_.valid()) return false;
        if (type_ == QDQ_PLAT_MANAGE) manageplatinfo.socketfd = fd_.get();
        return true;
    }
    // Unpublishes the descriptor before closing it, so that nobody picks
    // up a number that is about to be closed.
    void drop() {
        if (type_ == QDQ_PLAT_MANAGE && fd_.valid() && manageplatinfo.socketfd == fd_.get())
            manageplatinfo.socketfd = -1;
        fd_.reset();
    }
    int get() const { return fd_.get(); }

    // True while the thread is blocked in a cancellable wait; left true
    // when a cancellation unwinds from there.
    bool waiting = false;

private:
    int type_;
    qdq::Fd fd_;
};

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

// Answers datagrams until the socket has to be re-opened.
void serve(ServiceSocket &sock, int *plattype) {
    char buf[kRequestMax + 1];
    for (;;) {
        std::memset(buf, 0, sizeof buf);
        int ready;
        sock.waiting = true;
        {
            qdq::CancelWindow window;
            ready = qdq::wait_readable(sock.get(), -1);
        }
        sock.waiting = false;
        if (ready < 0) {
            AppMgrLogLine(qdq::kLogTrace, "Error:  in select\n");
            return;
        }
        if (ready == 0) {
            AppMgrLogLine(qdq::kLogTrace, "Error: FD_ISSET return 0\n");
            return;
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
            return;
        }
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
        qdq::open_firewall_port("udp", port);
        serve(sock, plattype);
    }
}

extern "C" QDQ_API int CreatePrecessUdpReqThread(int *plattype) {
    const int value = plattype != nullptr ? *plattype : -1;
    QDQ_LOG("CreatePrecessUdpReqThread for plat %d!\n!", value);
    int rc;
    if (plattype == nullptr)
        rc = EINVAL;
    else if (value != QDQ_PLAT_QUICKINSTALL)
        rc = qdq::start_thread(nullptr, udp_entry, plattype, true);
    else
        rc = qdq::start_thread(nullptr, quick_entry, nullptr, true);
    if (rc != 0) QDQ_LOG("Create CreatePrecessUdpReqThread thread failed\n!");
    QDQ_LOG("CreatePrecessUdpReqThread end\n!");
    return rc;
}
