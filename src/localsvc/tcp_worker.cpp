// One local TCP connection: one framed request in, at most one framed
// reply out, then the connection is closed.
#include <cstdio>
#include <cstdlib>

#include "common/json.h"
#include "common/log.h"
#include "common/socket.h"
#include "common/cancel.h"
#include "localsvc/quickinstall.h"
#include "platintf/hgprocessplatintf.h"

namespace {

// Leaves the connection table once: as soon as the reply is ready (before
// it is sent, so a client that has its answer and connects again never
// finds its previous connection still holding a slot), or on any other way
// out, also when an eviction cancels the worker. Always before the socket
// is closed, so the number cannot be reused while a slot still names it.
class Slot {
public:
    Slot(int plattype, int sock) : plattype_(plattype), sock_(sock) {}
    ~Slot() { leave(); }
    void leave() {
        if (plattype_ == QDQ_PLAT_LOCALTCP && !left_) qdq::release_local_connection(sock_);
        left_ = true;
    }
    Slot(const Slot &) = delete;
    Slot &operator=(const Slot &) = delete;

private:
    int plattype_;
    int sock_;
    bool left_ = false;
};

// The close is traced last, also when an eviction cancels the worker.
class TraceClose {
public:
    explicit TraceClose(int sock) : sock_(sock) {}
    ~TraceClose() {
        AppMgrLogLine(qdq::kLogTrace, "%s line %d: tcp close sock_fd:%d\n", qdq::kLocalModule, __LINE__, sock_);
    }
    TraceClose(const TraceClose &) = delete;
    TraceClose &operator=(const TraceClose &) = delete;

private:
    int sock_;
};

// HgTcpRcv may store a buffer and then fail; it is freed either way.
struct Received {
    char *text = nullptr;
    ~Received() { std::free(text); }
};

}  // namespace

int ProcessClientTcpRequest(char *arg) {
    // Cancellable only while it waits for the request (an eviction).
    qdq::NoCancel no_cancel;
    qdq::CText owned_arg(arg);
    int plattype = 0;
    int sock = -1;
    if (arg == nullptr || std::sscanf(arg, "%d#%d", &plattype, &sock) != 2 || sock < 0) return -1;
    QDQ_LOG("buf:%s, start ProcessClientTcpRequest, plattype:%d\tsServer:%d\n", arg, plattype, sock);

    qdq::Fd conn(sock);  // destroyed last: closed after the slot is left
    TraceClose trace_close(sock);
    Slot slot(plattype, sock);
    Received request;
    int len;
    {
        qdq::CancelWindow window;
        len = HgTcpRcv(sock, &request.text);
    }
    if (len <= 0) {
        slot.leave();
        AppMgrLogLine(qdq::kLogTrace, "%s line %d: sock_fd:%d recv error\n", qdq::kLocalModule, __LINE__, sock);
        return 0;
    }
    AppMgrLogLine(qdq::kLogTrace, "%s line %d: local port 18998 sock_fd %d HgTcpRcv %s", qdq::kLocalModule,
                  __LINE__, sock, request.text);
    char *raw = nullptr;
    const int ret = HGProcessPlatJsonMsg(request.text, &raw, &plattype);
    qdq::CText reply(raw);
    slot.leave();
    if (ret != 0 && reply) {
        HgTcpSend(sock, reply.get());
        AppMgrLogLine(qdq::kLogTrace, "%s line %d: local port 18998 sock_fd %d HgTcpSend %s", qdq::kLocalModule,
                      __LINE__, sock, reply.get());
    } else {
        QDQ_LOG("send buf is NULL, continue\n");
    }
    return 0;
}
