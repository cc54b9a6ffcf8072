// Worker threads started per message or event are capped per kind: at the
// cap a start is refused, a place comes back when a worker returns or is
// cancelled, and a flood of "EVENT_INFOR" events against a silent message
// server stays within the event cap with every event answered or refused. A
// cancellation never lands while the library's scoped lock is held.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <atomic>
#include <thread>
#include <vector>

#include "common/abi_guard.h"
#include "common/cancel.h"
#include "common/log.h"
#include "common/mutex.h"
#include "common/thread.h"
#include "local_helpers.h"

namespace {

std::atomic<bool> g_release{false};
std::atomic<pthread_t> g_victim{};

void *blocker(void *) {
    // poll: a cancellation point whose cancellation unwinds under qemu too
    // (docs/mipsel.md).
    while (!g_release.load()) poll(nullptr, 0, 1);
    return nullptr;
}

void *victim(void *) {
    g_victim.store(pthread_self());
    return blocker(nullptr);
}

// The thread count once it holds still for 50 ms: a worker gives its place
// back just before it ends, and its task entry may linger a moment longer
// (much longer under qemu), which would make a baseline one too high.
long settled_threads() {
    for (long last = -1, now = local::threads();; last = now, now = local::threads()) {
        if (now == last) return now;
        usleep(50000);
    }
}

TEST(Workers, EachKindStopsAtItsCapAndGetsItsPlacesBack) {
    using qdq::Work;
    // A first thread, so that runtime helpers started with it (a
    // sanitizer's background thread) are counted in `before`.
    g_release = true;
    ASSERT_EQ(qdq::start_worker(Work::event, blocker, nullptr), 0);
    ASSERT_TRUE(local::wait_until([] { return qdq::live_workers_total() == 0; }));
    const long before = settled_threads();
    for (Work kind : {Work::event, Work::channel, Work::expiry, Work::push, Work::command}) {
        SCOPED_TRACE(static_cast<int>(kind));
        g_release = false;
        for (int i = 0; i < qdq::worker_cap(kind); ++i) ASSERT_EQ(qdq::start_worker(kind, blocker, nullptr), 0);
        EXPECT_EQ(qdq::start_worker(kind, blocker, nullptr), EAGAIN);
        EXPECT_EQ(qdq::live_workers(kind), qdq::worker_cap(kind));
        // Another kind is not held back by this one.
        Work other = kind == Work::event ? Work::push : Work::event;
        g_victim = pthread_t{};
        ASSERT_EQ(qdq::start_worker(other, victim, nullptr), 0);
        // A cancelled worker gives its place back like one that returns.
        ASSERT_TRUE(local::wait_until([&] { return g_victim.load() != pthread_t{}; }));
        ASSERT_EQ(pthread_cancel(g_victim.load()), 0);
        EXPECT_TRUE(local::wait_until([&] { return qdq::live_workers(other) == 0; }));
        g_release = true;
        EXPECT_TRUE(local::wait_until([&] { return qdq::live_workers_total() == 0; }));
    }
    EXPECT_TRUE(local::wait_until([&] { return local::threads() == before; }));
}

// An entry's guard turns an exception into the entry's failure value, but a
// thread cancelled inside it must go on unwinding (a guard that swallowed
// that would abort the process).
TEST(Workers, EntryGuardStopsExceptionsButNotCancellation) {
    EXPECT_EQ(qdq::guard_entry("test", -7, []() -> int { throw std::runtime_error("x"); }), -7);
    g_release = false;
    pthread_t t;
    auto body = [](void *) -> void * {
        qdq::guard_entry("test", 0, [] { return blocker(nullptr) == nullptr ? 1 : 2; });
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&t, nullptr, body, nullptr), 0);
    ASSERT_EQ(pthread_cancel(t), 0);
    void *ret = nullptr;
    pthread_join(t, &ret);
    EXPECT_EQ(ret, PTHREAD_CANCELED);
    g_release = true;
}

TEST(Workers, EventFloodAgainstASilentMessageServerStaysBounded) {
    // Accepts connections (the backlog does) and never answers a push.
    qdq::Fd server = net::bound(SOCK_STREAM, true);
    std::snprintf(messageserver.addr, sizeof messageserver.addr, "127.0.0.1");
    messageserver.port = net::port_of(server.get());
    manageplatinfo.regflag = 1;
    const long before = settled_threads();
    const long fds = net::open_fds();

    std::atomic<int> accepted{0}, refused{0}, peak{0};
    std::atomic<bool> done{false};
    std::thread watch([&] {
        while (!done) {
            peak = std::max(peak.load(), qdq::live_workers(qdq::Work::event));
            usleep(500);
        }
    });
    std::vector<std::thread> senders;
    for (int t = 0; t < 20; ++t) {
        senders.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                int type = QDQ_PLAT_LOCALUDP;
                char *out = nullptr;
                HGProcessPlatJsonMsg(R"({"RPCMethod":"EVENT_INFOR","Event":"door open"})", &out, &type);
                const int r = local::json_int(out ? out : "", "Result");
                std::free(out);
                if (r == 0)
                    ++accepted;
                else if (r == -1)
                    ++refused;
            }
        });
    }
    for (std::thread &s : senders) s.join();
    EXPECT_EQ(accepted + refused, 200);
    EXPECT_GE(accepted, qdq::worker_cap(qdq::Work::event));
    EXPECT_GT(refused, 0);
    EXPECT_TRUE(local::wait_until([] { return qdq::live_workers(qdq::Work::event) == 0; }, 20000));
    done = true;
    watch.join();
    EXPECT_LE(peak, qdq::worker_cap(qdq::Work::event));
    EXPECT_TRUE(local::wait_until([&] { return local::threads() == before && net::open_fds() == fds; }));
    manageplatinfo.regflag = 0;
}

// A cancellation sent while a MutexLock is held lands at the holder's next
// CancelWindow, after the lock is released, never inside the locked scope.
qdq::Mutex g_lock;
std::atomic<int> g_stage{0};

void *lock_then_wait(void *) {
    {
        qdq::MutexLock lock(g_lock);
        g_stage.store(1);
        while (g_stage.load() != 2) poll(nullptr, 0, 1);  // a cancellation point under the lock
    }
    g_stage.store(3);
    qdq::CancelWindow window;
    for (;;) poll(nullptr, 0, 1);
}

TEST(Workers, CancellationNeverLandsWhileAMutexLockIsHeld) {
    pthread_t tid;
    ASSERT_EQ(qdq::start_thread(&tid, lock_then_wait, nullptr, false), 0);
    ASSERT_TRUE(local::wait_until([] { return g_stage.load() == 1; }));
    ASSERT_EQ(pthread_cancel(tid), 0);
    g_stage.store(2);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(tid, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(g_stage.load(), 3);
    ASSERT_EQ(pthread_mutex_trylock(g_lock.native()), 0);
    pthread_mutex_unlock(g_lock.native());
}

}  // namespace
