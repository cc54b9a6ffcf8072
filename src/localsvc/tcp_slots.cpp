// Connection table of the local TCP service: at most five workers, the
// oldest slot evicted for a sixth client.
//
// Ownership: a worker owns its socket and is the only one to close it. An
// eviction cancels the worker and shuts its connection down (which also
// wakes a worker that is not at a cancellation point), but never closes
// the descriptor, so a number is never closed twice. The table is changed
// only under its lock, taken with cancellation disabled.
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "common/cancel.h"
#include "common/log.h"
#include "common/thread.h"
#include "localsvc/quickinstall.h"

namespace {

std::mutex slot_mutex;
int localconnum = 0;
int acceptsocket[qdq::kLocalTcpSlots] = {-1, -1, -1, -1, -1};
pthread_t acceptthread[qdq::kLocalTcpSlots] = {};

// "%d#%d" of any plattype and descriptor fits.
constexpr std::size_t kArgSize = 32;

// Worker threads started and not yet at their end (slot or not).
std::atomic<int> tcp_workers_alive{0};

// Counts the worker out on every way out, a cancellation's unwind included.
struct LiveWorker {
    ~LiveWorker() { tcp_workers_alive.fetch_sub(1); }
};

void *worker_entry(void *arg) {
    LiveWorker live;
    ProcessClientTcpRequest(static_cast<char *>(arg));
    return nullptr;
}

// Lock held. The worker in slot 0 is alive: it leaves the table (under
// this lock) before it ends, so cancelling its id here is safe.
void evict_first() {
    QDQ_LOG("local con num is %d, disconnect the fist one! pthreadid:%lu acceptsocket:%d\n", localconnum,
            qdq::thread_number(acceptthread[0]), acceptsocket[0]);
    pthread_cancel(acceptthread[0]);
    QDQ_LOG("StartProcessTcpRequest pthread_cancel end\n");
    QDQ_LOG("send cancel local tcp process ok\n");
    shutdown(acceptsocket[0], SHUT_RDWR);
    for (int i = 0; i + 1 < qdq::kLocalTcpSlots; ++i) {
        acceptsocket[i] = acceptsocket[i + 1];
        acceptthread[i] = acceptthread[i + 1];
        QDQ_LOG("after, the %d st pthreadid:%lu acceptsocket %d\n", i, qdq::thread_number(acceptthread[i]),
                acceptsocket[i]);
    }
    const int last = qdq::kLocalTcpSlots - 1;
    acceptsocket[last] = -1;
    acceptthread[last] = pthread_t{};
    QDQ_LOG("after, the %d st pthreadid:%lu acceptsocket %d\n", last, qdq::thread_number(acceptthread[last]),
            acceptsocket[last]);
    --localconnum;
}

}  // namespace

namespace qdq {

int admit_local_connection(int sock, int plattype) {
    auto *arg = static_cast<char *>(std::malloc(kArgSize));
    if (arg == nullptr) return -1;
    std::snprintf(arg, kArgSize, "%d#%d", plattype, sock);

    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(slot_mutex);
    if (localconnum >= kLocalTcpSlots) evict_first();
    int slot = -1;
    for (int i = 0; i < kLocalTcpSlots && slot < 0; ++i)
        if (acceptsocket[i] < 0) slot = i;
    QDQ_LOG("the CUR id is %d!\n", slot);
    if (slot < 0) {
        // Cannot happen while the count and the table agree; the caller
        // closes the connection rather than leaving it unserved.
        QDQ_LOG("The Current connection is maximum\n");
        std::free(arg);
        return -1;
    }
    // The worker is started under the lock, so its id is in the table
    // before it could try to leave it.
    acceptsocket[slot] = sock;
    tcp_workers_alive.fetch_add(1);
    int rc = start_thread(&acceptthread[slot], worker_entry, arg, true, "qdq-tcp-conn");
    if (rc != 0) {
        tcp_workers_alive.fetch_sub(1);
        QDQ_LOG("Create ProcessClientTcpRequest thread failed!\n");
        acceptsocket[slot] = -1;
        acceptthread[slot] = pthread_t{};
        std::free(arg);
        return -1;
    }
    QDQ_LOG("Create ProcessClientTcpRequest thread success! pthread:%lu\n", qdq::thread_number(acceptthread[slot]));
    ++localconnum;
    return 0;
}

void release_local_connection(int sock) {
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(slot_mutex);
    for (int i = 0; i < kLocalTcpSlots; ++i) {
        if (acceptsocket[i] != sock) continue;
        acceptsocket[i] = -1;
        acceptthread[i] = pthread_t{};
        QDQ_LOG("tkr-----close connect[%d] %d localconnum is %d\n", i, sock, localconnum);
        --localconnum;
    }
}

bool local_workers_at_cap() { return tcp_workers_alive.load() >= kLocalTcpWorkers; }

void copy_local_slots(LocalTcpState &state) {
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(slot_mutex);
    state.connections = localconnum;
    for (int i = 0; i < kLocalTcpSlots; ++i) {
        state.sockets[i] = acceptsocket[i];
        state.threads[i] = acceptthread[i];
    }
}

}  // namespace qdq
