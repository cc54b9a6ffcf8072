#include "common/thread.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <new>

#include <sched.h>

#include "common/cancel.h"
#include "common/log.h"

// GCC names its sanitizers with macros, clang with __has_feature.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QDQ_CLANG_SANITIZED 1
#endif
#endif
#ifndef QDQ_CLANG_SANITIZED
#define QDQ_CLANG_SANITIZED 0
#endif

namespace qdq {

namespace {

// Caps per kind, in the order of Work. Timer expiries are retried by the
// tick a few seconds later; events and pushes are refused like a failed
// thread creation; channel messages and commands submitted through
// submit_work wait in their queue.
constexpr int kCaps[kWorkKinds] = {16, 16, 16, 8, 8};
// Queue depths behind the caps (docs/hardening.md): a plugin platform that
// sends more than 48 messages without waiting for answers, or a host with
// more than 40 shell commands pending, is refused.
constexpr int kDepths[kWorkKinds] = {0, 32, 0, 0, 32};
constexpr int kMaxDepth = 32;
constexpr const char *kNames[kWorkKinds] = {"event", "channel", "timer expiry", "push", "command"};
// Thread names as `ps -T` and `top -H` show them (at most 15 characters).
constexpr const char *kThreadNames[kWorkKinds] = {"qdq-event", "qdq-channel", "qdq-expiry", "qdq-push",
                                                  "qdq-command"};

constexpr int sum_of_caps() {
    int total = 0;
    for (int cap : kCaps) total += cap;
    return total;
}
constexpr int kAllCaps = sum_of_caps();

std::atomic<int> g_live[kWorkKinds];

int index_of(Work kind) { return static_cast<int>(kind); }

// Workers are joinable, and a place comes back only once its thread has
// been joined: a finished worker that the scheduler has not let exit yet
// still exists (its stack too), so freeing the place when the work returns
// would let a loaded gateway hold more threads than the cap. A finished
// worker queues itself here; the next start, count or tick joins it (it has
// nothing left to do but exit, so the join is brief).
// The queue is guarded by a spin lock on an atomic flag, held for a few
// stores at most. Its fields are atomics too: ThreadSanitizer does not
// follow synchronisation inside a thread it is cancelling, and a cancelled
// worker queues itself while unwinding.
struct Finished {
    std::atomic<pthread_t> tid;
    std::atomic<int> kind;
};
Finished g_finished[kAllCaps];  // never more than the places taken
std::atomic<int> g_finished_count{0};
std::atomic_flag g_finished_lock = ATOMIC_FLAG_INIT;
struct QueueLock {
    QueueLock() {
        while (g_finished_lock.test_and_set(std::memory_order_acquire)) sched_yield();
    }
    ~QueueLock() { g_finished_lock.clear(std::memory_order_release); }
};


struct Worker {
    Work kind;
    void *(*fn)(void *);
    void *arg;
};

// Queues the worker for its join however the thread ends: by returning or
// by a cancellation, whose unwinding runs this destructor (the queue never
// allocates).
struct Place {
    Work kind;
    ~Place() {
        QueueLock lock;
        const int k = g_finished_count.load(std::memory_order_relaxed);
        g_finished[k].tid.store(pthread_self(), std::memory_order_relaxed);
        g_finished[k].kind.store(index_of(kind), std::memory_order_relaxed);
        g_finished_count.store(k + 1, std::memory_order_relaxed);
    }
};

void *worker_entry(void *raw) {
    std::unique_ptr<Worker> w(static_cast<Worker *>(raw));
    Place place{w->kind};
    pthread_setname_np(pthread_self(), kThreadNames[index_of(w->kind)]);
    void *(*fn)(void *) = w->fn;
    void *arg = w->arg;
    w.reset();
    return fn(arg);
}

struct Named {
    void *(*fn)(void *);
    void *arg;
    const char *name;
};

void *named_entry(void *raw) {
    std::unique_ptr<Named> n(static_cast<Named *>(raw));
    pthread_setname_np(pthread_self(), n->name);
    void *(*fn)(void *) = n->fn;
    void *arg = n->arg;
    n.reset();
    return fn(arg);
}

struct Job {
    void *(*fn)(void *);
    void *arg;
};

// The queue of one kind. `takers` counts the workers started through
// submit_work that will look at the queue again before they end; a job is
// queued only while one of them will.
struct WorkQueue {
    std::mutex mutex;  // a leaf lock: nothing is logged or started under it
    Job jobs[kMaxDepth];
    int head = 0;
    int count = 0;
    int takers = 0;
};
WorkQueue g_queues[kWorkKinds];

// Needs the queue's mutex and room.
void push_locked(WorkQueue &q, Job job) {
    q.jobs[(q.head + q.count) % kMaxDepth] = job;
    ++q.count;
}

struct Drainer {
    Work kind;
    Job first;
};

// Runs its job, then the queued ones, until the queue is empty.
void *drain_entry(void *raw) {
    std::unique_ptr<Drainer> d(static_cast<Drainer *>(raw));
    WorkQueue &q = g_queues[index_of(d->kind)];
    Job job = d->first;
    d.reset();
    for (;;) {
        job.fn(job.arg);
        NoCancel no_cancel;
        std::lock_guard<std::mutex> lock(q.mutex);
        if (q.count == 0) {
            --q.takers;
            return nullptr;
        }
        job = q.jobs[q.head];
        q.head = (q.head + 1) % kMaxDepth;
        --q.count;
    }
}

int start_counted(Work kind, void *(*fn)(void *), void *arg, bool log_refusal);

}  // namespace

int queue_depth(Work kind) { return kDepths[index_of(kind)]; }

int queued_work(Work kind) {
    WorkQueue &q = g_queues[index_of(kind)];
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(q.mutex);
    return q.count;
}

int submit_work(Work kind, void *(*fn)(void *), void *arg) {
    const int i = index_of(kind);
    WorkQueue &q = g_queues[i];
    NoCancel no_cancel;
    int waiting = -1;
    {
        std::lock_guard<std::mutex> lock(q.mutex);
        if (q.takers < kCaps[i]) {
            ++q.takers;
        } else if (q.count < kDepths[i]) {
            push_locked(q, Job{fn, arg});
            return 0;
        } else {
            waiting = q.count;
        }
    }
    if (waiting >= 0) {
        QDQ_LOG("thread limit reached: %d %s workers running, %d waiting, request refused", kCaps[i], kNames[i],
                waiting);
        return EAGAIN;
    }
    auto *d = new (std::nothrow) Drainer{kind, Job{fn, arg}};
    int rc = d != nullptr ? EAGAIN : ENOMEM;
    // A worker that has just given its place up counts until its thread is
    // joined, a moment later: retry briefly, or queue the job when another
    // worker will still look at the queue.
    for (int attempt = 0; d != nullptr && attempt < 1000; ++attempt) {
        rc = start_counted(kind, drain_entry, d, false);
        if (rc != EAGAIN) break;
        {
            std::lock_guard<std::mutex> lock(q.mutex);
            if (q.takers > 1 && q.count < kDepths[i]) {
                --q.takers;
                push_locked(q, d->first);
                delete d;
                return 0;
            }
        }
        sched_yield();
    }
    if (rc != 0) {
        delete d;
        std::lock_guard<std::mutex> lock(q.mutex);
        --q.takers;
    }
    if (rc == EAGAIN) QDQ_LOG("thread limit reached: %d %s workers running, request refused", kCaps[i], kNames[i]);
    return rc;
}

void reap_workers() {
    // pthread_join is a cancellation point: a cancelled caller must not
    // leave popped workers unjoined and their places lost.
    NoCancel no_cancel;
    pthread_t tids[kAllCaps];
    int kinds[kAllCaps];
    int n = 0;
    {
        QueueLock lock;
        n = g_finished_count.load(std::memory_order_relaxed);
        for (int k = 0; k < n; k++) {
            tids[k] = g_finished[k].tid.load(std::memory_order_relaxed);
            kinds[k] = g_finished[k].kind.load(std::memory_order_relaxed);
        }
        g_finished_count.store(0, std::memory_order_relaxed);
    }
    for (int k = 0; k < n; k++) {
        pthread_join(tids[k], nullptr);
        g_live[kinds[k]].fetch_sub(1);
    }
}

std::size_t thread_stack_size() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || QDQ_CLANG_SANITIZED
    return 1024 * 1024;
#else
    return 256 * 1024;
#endif
}

int start_thread(pthread_t *tid, void *(*fn)(void *), void *arg, bool detached, const char *name) {
    if (name != nullptr) {
        auto *n = new (std::nothrow) Named{fn, arg, name};
        if (n == nullptr) return ENOMEM;
        int rc = start_thread(tid, named_entry, n, detached, nullptr);
        if (rc != 0) delete n;
        return rc;
    }
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) return rc;
    pthread_attr_setstacksize(&attr, thread_stack_size());
    if (detached) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t local;
    rc = pthread_create(tid ? tid : &local, &attr, fn, arg);
    pthread_attr_destroy(&attr);
    return rc;
}

int worker_cap(Work kind) { return kCaps[index_of(kind)]; }

int live_workers(Work kind) {
    reap_workers();
    return g_live[index_of(kind)].load();
}

int live_workers_total() {
    reap_workers();
    int total = 0;
    for (const auto &n : g_live) total += n.load();
    return total;
}

int start_worker(Work kind, void *(*fn)(void *), void *arg) { return start_counted(kind, fn, arg, true); }

namespace {

int start_counted(Work kind, void *(*fn)(void *), void *arg, bool log_refusal) {
    const int i = index_of(kind);
    reap_workers();
    // The place is taken before the thread exists, and only while one is
    // free: concurrent starters never overshoot the cap, not even for a
    // moment (the count is what live_workers reports).
    int live = g_live[i].load();
    do {
        if (live >= kCaps[i]) {
            if (log_refusal)
                QDQ_LOG("thread limit reached: %d %s workers running, request dropped", kCaps[i], kNames[i]);
            return EAGAIN;
        }
    } while (!g_live[i].compare_exchange_weak(live, live + 1));
    auto *w = new (std::nothrow) Worker{kind, fn, arg};
    int rc = w != nullptr ? start_thread(nullptr, worker_entry, w, false) : ENOMEM;
    if (rc != 0) {
        delete w;
        g_live[i].fetch_sub(1);
    }
    return rc;
}

}  // namespace

}  // namespace qdq
