// Local TCP request service on cubeplatinfo.localsrvport: accepts local
// clients and hands each connection to a worker (tcp_slots.cpp).
//
// The service thread owns its listening socket and is cancellable only
// inside accept. A stop cancels it and waits until the thread has closed
// the socket, so the port is free when the stop returns and a descriptor
// number is never closed by two threads.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "common/cancel.h"
#include "common/clock.h"
#include "common/log.h"
#include "common/socket.h"
#include "common/thread.h"
#include "localsvc/quickinstall.h"

namespace {

std::mutex service_mutex;
std::condition_variable service_ended;
bool running = false;
pthread_t localtcptid{};
int locallisten = -1;
unsigned long generation = 0;  // counts service ends, for waiting stops

// Lock held. Cancels the running service and waits until it has ended.
void stop_locked(std::unique_lock<std::mutex> &lock) {
    if (!running) return;
    const pthread_t tid = localtcptid;
    const int rc = pthread_cancel(tid);
    if (rc == 0)
        QDQ_LOG("send cancel local PrecessTcpReqThread ok\n");
    else
        QDQ_LOG("send cancel local PrecessTcpReqThread fail,ret:%d\n", rc);
    // A service never stops itself; waiting for that would never end.
    if (pthread_equal(tid, pthread_self())) return;
    const unsigned long gen = generation;
    service_ended.wait(lock, [gen] { return generation != gen; });
    QDQ_LOG("close locallisten ok");
}

// The running service: registered for its whole life (after stopping an
// earlier one); on every way out, a return or a cancellation, it closes the
// listening socket and clears the registration.
class Registration {
public:
    Registration() {
        std::unique_lock<std::mutex> lock(service_mutex);
        stop_locked(lock);
        running = true;
        localtcptid = pthread_self();
        locallisten = -1;
    }
    ~Registration() {
        std::lock_guard<std::mutex> lock(service_mutex);
        listen_.reset();
        if (running && pthread_equal(localtcptid, pthread_self())) {
            running = false;
            localtcptid = pthread_t{};
            locallisten = -1;
        }
        ++generation;
        service_ended.notify_all();
    }
    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;

    void adopt(qdq::Fd fd) {
        std::lock_guard<std::mutex> lock(service_mutex);
        listen_ = std::move(fd);
        locallisten = listen_.get();
    }
    int fd() const { return listen_.get(); }

private:
    qdq::Fd listen_;
};

void trace_accept(unsigned port, const sockaddr_in &peer, int sock) {
    char addr[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, addr, sizeof addr);
    QDQ_LOG("tkr-----detected tcp client connect sServer %d.....localconnum %d\n", sock,
            qdq::local_tcp_state().connections);
    AppMgrLogLine(qdq::kLogTrace, "\n%s line %d: local port %d accept a tcp client connected %s:%d, sock_fd:%d",
                  qdq::kLocalModule, __LINE__, static_cast<int>(port), addr, ntohs(peer.sin_port), sock);
}

void accept_loop(int lfd, unsigned port, int plattype) {
    for (;;) {
        // Too many workers still finishing: the next client waits in the
        // listen queue instead of starting one more thread. (A short sleep,
        // not a condition variable: this wait must stay cancellable, and
        // std::condition_variable's wait cannot be unwound by a cancel.)
        while (qdq::local_workers_at_cap()) {
            qdq::CancelWindow window;
            qdq::sleep_for(0.001);
        }
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        int sock;
        {
            qdq::CancelWindow window;
            sock = accept4(lfd, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_CLOEXEC);
        }
        if (sock < 0) {
            const int err = errno;
            AppMgrLogLine(qdq::kLogTrace, "%s line %d:18998 accept error, errno=%s\n", qdq::kLocalModule,
                          __LINE__, std::strerror(err));
            QDQ_LOG("accept error ,errno=%s\n", std::strerror(err));
            // Out of descriptors or memory: pause instead of spinning.
            if (err != EINTR && err != ECONNABORTED) {
                qdq::CancelWindow window;
                qdq::sleep_for(1);
            }
            continue;
        }
        qdq::Fd conn(sock);
        if (cubeplatinfo.localability != 0) {
            AppMgrLogLine(qdq::kLogTrace, "%s line %d:18998 localablity is disable, continue!\n",
                          qdq::kLocalModule, __LINE__);
            QDQ_LOG("localablity is disable, continue!");
            continue;
        }
        trace_accept(port, peer, sock);
        // Taken by a worker, or closed here: never left open unserved.
        if (qdq::admit_local_connection(sock, plattype) == 0) conn.release();
    }
}

void *tcp_entry(void *arg) {
    StartProcessTcpRequest(static_cast<int *>(arg));
    return nullptr;
}

}  // namespace

namespace qdq {

LocalTcpState local_tcp_state() {
    LocalTcpState state{};
    {
        NoCancel no_cancel;
        std::lock_guard<std::mutex> lock(service_mutex);
        state.service = running ? localtcptid : pthread_t{};
        state.listen_fd = locallisten;
    }
    copy_local_slots(state);
    return state;
}

}  // namespace qdq

// Runs on a detached thread of its own, so the body does not detach.
int StartProcessTcpRequest(int *plattype) {
    qdq::NoCancel no_cancel;  // cancellable only inside accept
    const int type = plattype != nullptr ? *plattype : -1;
    QDQ_LOG("StartProcessTcpRequest ! plattype:%d\n", type);
    if (type != QDQ_PLAT_LOCALTCP) return -1;
    const unsigned port = cubeplatinfo.localsrvport;

    Registration service;  // stops an earlier instance first
    QDQ_LOG("local tcp service pid %lu,plattype %d %d\tport:%d\n", qdq::thread_number(pthread_self()), type, type,
            static_cast<int>(port));
    qdq::Fd lsock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!lsock.valid()) {
        QDQ_LOG("create socket error, errno=%s\n", std::strerror(errno));
        return -1;
    }
    if (qdq::set_reuseaddr(lsock.get()) == 0)
        QDQ_LOG("set address reuse succ!\n");
    else
        QDQ_LOG("set address reuse fail!\n");
    service.adopt(std::move(lsock));
    sockaddr_in addr;
    qdq::ipv4_address(nullptr, port, addr);
    const int bound = bind(service.fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    QDQ_LOG("tcp port is %d\n", static_cast<int>(addr.sin_port));
    if (bound < 0) {
        QDQ_LOG("bind error ,errno=%s\n", std::strerror(errno));
        return -1;
    }
    if (listen(service.fd(), 10) < 0) {
        QDQ_LOG("listen error ,errno=%s", std::strerror(errno));
        return -1;
    }
    qdq::open_firewall_port("tcp", port);
    accept_loop(service.fd(), port, type);
    return -1;  // not reached
}

extern "C" QDQ_API int CreatePrecessTcpReqThread(int *plattype) {
    QDQ_LOG("CreatePrecessTcpReqThread start! plattype=%d\n", plattype != nullptr ? *plattype : -1);
    const int rc = plattype != nullptr ? qdq::start_thread(nullptr, tcp_entry, plattype, true, "qdq-tcp") : EINVAL;
    if (rc != 0) QDQ_LOG("Create CreatePrecessTcpReqThread thread failed!\n");
    QDQ_LOG("CreatePrecessTcpReqThread end!\n");
    return rc;
}

extern "C" QDQ_API int StopProcessTcpRequest(void) {
    qdq::NoCancel no_cancel;  // the wait below must not be abandoned
    std::unique_lock<std::mutex> lock(service_mutex);
    if (running) {
        stop_locked(lock);
    }
    return 0;
}
