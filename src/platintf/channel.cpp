// The persistent TCP channel of the manage and plugin platforms: a receive
// loop on the session socket, each platform message dispatched and its
// answer sent back on the channel.
//
// HGDisconnectPlat stops a loop from another thread by cancelling its
// thread. So that a cancellation can never abandon a lock, a descriptor or
// a buffer, the loop runs with deferred cancellation that is enabled only
// while it waits for the next frame (one poll, called directly from the
// waiting function, so nothing but that function's own frame is unwound by
// a cancellation); it reads from its own duplicate of the session socket
// (the record's number may be closed, and reused by the process, under
// it), and owns everything it holds through destructors. A frame that
// stalls half-way is read with cancellation disabled; the disconnect's
// shutdown of the connection wakes that read.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/cancel.h"
#include "common/fd_slots.h"
#include "common/json.h"
#include "common/log.h"
#include "common/mutex.h"
#include "common/socket.h"
#include "common/thread.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"

// Serialises the start-up of the plugin channel's message workers. Each
// worker holds it in its own thread only (the loop never does), so
// cancelling the loop can never leave it locked. Statically initialised:
// re-initialising it on every new channel would be undefined while a
// worker of the previous channel holds it.
pthread_mutex_t tcpreq_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// The loop thread of each platform while its loop runs. HGDisconnectPlat
// cancels only a loop registered here: the record's `tid` outlives its
// thread, and the id of a finished thread may already name another one.
qdq::Mutex channel_mutex;
struct ChannelSlot {
    bool live = false;
    pthread_t thread{};
};
ChannelSlot g_channels[2] QDQ_GUARDED_BY(channel_mutex);  // manage, plugin

int slot_index(int plattype) { return plattype == QDQ_PLAT_MANAGE ? 0 : 1; }

// Registers the calling thread as the platform's loop for its scope (also
// when the scope is left by a cancellation).
class ChannelRegistration {
public:
    explicit ChannelRegistration(int plattype) : index_(slot_index(plattype)) {
        qdq::MutexLock lock(channel_mutex);
        g_channels[index_].live = true;
        g_channels[index_].thread = pthread_self();
    }
    ~ChannelRegistration() { end(); }
    // After this no disconnect sends the thread a cancellation.
    void end() {
        qdq::MutexLock lock(channel_mutex);
        ChannelSlot &slot = g_channels[index_];
        if (slot.live && pthread_equal(slot.thread, pthread_self())) slot.live = false;
    }
    ChannelRegistration(const ChannelRegistration &) = delete;
    ChannelRegistration &operator=(const ChannelRegistration &) = delete;

private:
    int index_;
};

// Waits until the next frame (or the end of the connection) can be read:
// the loop's only cancellation point.
bool wait_for_frame(int fd) {
    struct pollfd p;
    p.fd = fd;
    p.events = POLLIN;
    p.revents = 0;
    int ready;
    {
        qdq::CancelWindow window;
        do {
            ready = poll(&p, 1, -1);
        } while (ready < 0 && errno == EINTR);
    }
    return ready == 1;
}

// A plugin "Disconnect" is recognised only as written exactly so.
bool is_disconnect(const char *text) { return std::strstr(text, "\"RPCMethod\":\"Disconnect\"") != nullptr; }

void *plugin_worker(void *message) {
    HgProcessPlatTcpRequest(static_cast<char *>(message), QDQ_PLAT_PLUGIN);
    return nullptr;
}

}  // namespace

namespace qdq {

int cancel_channel_thread(int plattype, pthread_t tid) {
    MutexLock lock(channel_mutex);
    const ChannelSlot &slot = g_channels[slot_index(plattype)];
    if (!slot.live || !pthread_equal(slot.thread, tid)) return -1;  // no loop runs there
    return pthread_cancel(tid);
}

}  // namespace qdq

void HgProcessPlatTcpConnect(int plattype) {
    QDQ_LOG("HgProcessPlatTcpMsg !plattype:%d thread %lu", plattype, qdq::thread_number(pthread_self()));
    if (plattype != QDQ_PLAT_MANAGE && plattype != QDQ_PLAT_PLUGIN) {
        QDQ_LOG("platinfo NULL");
        return;
    }
    const bool manage = plattype == QDQ_PLAT_MANAGE;
    platinfo *rec = getPlatInfo(plattype);
    const int heartbeat_timer = manage ? qdq::kTimerManageHeartbeat : qdq::kTimerPluginHeartbeat;
    const int connect_timer = manage ? qdq::kTimerConnectManage : qdq::kTimerConnectPlugin;

    // Off for the whole loop; each wait opens its own deferred window.
    qdq::NoCancel no_cancel;
    // The loop's own descriptor for the same connection; the record's
    // number stays the one everybody else sends on and closes.
    qdq::Fd sock(qdq::duplicate_slot(&rec->socketfd));
    ChannelRegistration registration(plattype);
    rec->tid = pthread_self();

    while (rec->regflag != 0 && sock.valid()) {
        if (!wait_for_frame(sock.get())) break;
        char *raw = nullptr;
        const int got = HgTcpRcv(sock.get(), &raw);
        qdq::CText text(raw);  // also a partial payload, freed unread
        if (got < 1) break;
        if (manage) {
            if (HgProcessPlatTcpRequest(text.release(), plattype) == -1) break;
            continue;
        }
        // Every plugin message is a sign of life: the next heartbeat is due
        // an interval from now.
        AppTimerDestory(qdq::kTimerPluginHbTimeout);
        AppTimerCreate(static_cast<int>(rec->interval), heartbeat_timer, 0, QdTimeoutHandle);
        if (is_disconnect(text.get())) {
            AppMgrLogLine(qdq::kLogTrace, "rcv Disconnect!");
            HgProcessPlatTcpRequest(text.release(), plattype);
            QDQ_LOG("process Disconnect, break!");
            break;
        }
        // The worker owns its message: nothing is shared with the loop. At
        // the cap on live channel workers the message waits in the channel
        // queue; when that is full too the channel ends, as after any
        // failed start: the platform sees the connection close and the
        // gateway connects again, instead of a message lost unanswered.
        const int rc = qdq::submit_work(qdq::Work::channel, plugin_worker, text.get());
        if (rc != 0) {
            QDQ_LOG("create thread process plugin req failed");
            break;
        }
        text.release();
    }
    registration.end();
    {
        // A disconnect that came in meanwhile has torn the channel down
        // already; its cancellation ends the thread here, never later in
        // the caller's code.
        qdq::CancelWindow window;
        pthread_testcancel();
    }
    sock.reset();
    HGDisconnectPlat(plattype);
    qdq::connect_soon(connect_timer, 5);
    QDQ_LOG("HgProcessPlatTcpMsg end! plattype:%d", plattype);
}

int HgProcessPlatTcpRequest(char *message, int plattype) {
    if (message == nullptr) return -1;
    qdq::CText text(message);
    platinfo *rec = getPlatInfo(plattype);
    if (rec == nullptr) return -1;
    QDQ_LOG("HgProcessPlatTcpRequest, plattype:%d\tthread:%lu\tremoteport:%d\tlocalport:%d", plattype,
            qdq::thread_number(pthread_self()), static_cast<int>(rec->port), static_cast<int>(rec->localport));
    {
        // The start-up phase, one worker at a time. The worker already owns
        // its message, so there is nothing left to copy.
        qdq::NoCancel no_cancel;
        pthread_mutex_lock(&tcpreq_mutex);
        QDQ_LOG("after copy rcv msg");
        pthread_mutex_unlock(&tcpreq_mutex);
    }
    QDQ_LOG("before process");
    char *answer_raw = nullptr;
    int type = plattype;
    const int ret = HGProcessPlatJsonMsg(text.get(), &answer_raw, &type);
    qdq::CText answer(answer_raw);
    if (ret == 0) {
        rec->hbreplied = 1;
        ProcessHeartBeatReply(text.get(), plattype);
        QDQ_LOG("heartbeat is not need reply, send buf is NULL, continue\n");
        return 0;
    }
    if (ret == QDQ_ABILITY_FAILED) return 0;
    if (rec->regflag != 0) {
        qdq::session_send(rec, answer.get());
        return 0;
    }
    QDQ_LOG("plat %d is already unreg!", plattype);
    return -1;
}
