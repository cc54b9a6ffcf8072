// Application timers on the scaled clock: timing, re-arm rules, table limits,
// callbacks that re-enter the service, and the dispatch to the host.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <vector>

#include "common/clock.h"
#include "common/host.h"
#include "common/timer.h"
#include "platform_double.h"

namespace {

using Clock = std::chrono::steady_clock;
using Lock = std::unique_lock<std::mutex>;
std::mutex g_mu;
std::condition_variable g_cv;
std::vector<std::vector<int>> g_fired;  // id (and the host callback's arguments)
std::vector<Clock::time_point> g_when;
const Clock::duration kSlack = std::chrono::seconds(1);
// Not a constant: the scale is read once, after main() has set it.
Clock::duration tick() { return qdq::scaled(1.0); }

void note(std::vector<int> call) {
    Lock lock(g_mu);
    g_fired.push_back(std::move(call)), g_when.push_back(Clock::now());
    g_cv.notify_all();
}

void record(int id) { note({id}); }

// Expiry times of `id` once there are n, or after `ticks` and a margin.
std::vector<Clock::time_point> fired(int id, size_t n = 0, int ticks = 0) {
    std::vector<Clock::time_point> out;
    Lock lock(g_mu);
    g_cv.wait_until(lock, Clock::now() + ticks * tick() + 3 * kSlack, [&] {
        out.clear();
        for (size_t i = 0; i < g_fired.size(); ++i)
            if (g_fired[i][0] == id) out.push_back(g_when[i]);
        return out.size() >= n;
    });
    return out;
}

// Where `id` sits in the table, and how full the table is.
struct Slot {
    int index;         // -1: not armed
    int seconds_left;  // 0 when not armed
    int armed_ids;     // CurTimerNum
    bool operator==(const Slot &o) const {
        return index == o.index && seconds_left == o.seconds_left && armed_ids == o.armed_ids;
    }
};
std::ostream &operator<<(std::ostream &out, const Slot &s) {
    return out << "{index " << s.index << ", left " << s.seconds_left << ", armed " << s.armed_ids << "}";
}
Slot slot(int id) {
    qdq::MutexLock guard(timerlock);
    int i = qdq::timer_index(id);
    return {i, i < 0 ? 0 : g_timer[i].left_time, CurTimerNum};
}
const int kUnarmed = -1;

void rearm_three_times(int id) {
    record(id);
    if (fired(id).size() < 3) AppTimerCreate(2, id, 0, rearm_three_times);
    else AppTimerDestory(id);
}

void slow(int id) { record(id), qdq::sleep_for(6); }

void host_event(int id, int period, int multtimes, int reserved) { note({id, period, multtimes, reserved}); }

class Timer : public ::testing::Test {
    void SetUp() override {
        AppInitTimerModule();
        qdq::MutexLock guard(timerlock);
        CurTimerNum = 0;  // the module's init leaves the count alone
        Lock lock(g_mu);
        g_fired.clear(), g_when.clear();
        AppCreateTimerProcessThread();
    }
};

TEST_F(Timer, FiresOnTimeKeepsRunningCountdownsAndRearmsFiredOnesInPlace) {
    auto start = Clock::now();
    ASSERT_EQ(0, AppTimerCreate(300, 13, 0, record));
    ASSERT_EQ(0, AppTimerCreate(20, 7, 0, record));
    auto t = fired(7, 1, 20);
    ASSERT_EQ(1u, t.size());
    EXPECT_GE(t[0] - start, 19 * tick());
    EXPECT_LT(t[0] - start, 20 * tick() + kSlack);
    ASSERT_EQ(0, AppTimerCreate(5, 13, 0, record));  // 13 is still running
    EXPECT_GT(slot(13).seconds_left, 200);
    const int index_of_7 = slot(7).index;
    ASSERT_EQ(0, AppTimerCreate(3, 7, 0, record));  // 7 has fired
    EXPECT_EQ((Slot{index_of_7, 3, 2}), slot(7));
    EXPECT_EQ(2u, fired(7, 2, 3).size());

    // "Soon" cuts a long countdown short, but never lengthens a short one.
    ASSERT_EQ(0, qdq::timer_arm_within(4, 13, record));
    EXPECT_EQ(4, slot(13).seconds_left);
    ASSERT_EQ(0, qdq::timer_arm_within(50, 13, record));
    EXPECT_LE(slot(13).seconds_left, 4);
    EXPECT_EQ(1u, fired(13, 1, 4).size());
}

TEST_F(Timer, TableHoldsFiftyIdsAndDestroyFreesOne) {
    EXPECT_EQ(0, AppTimerDestory(40));
    for (int id = 101; id <= 150; ++id) ASSERT_EQ(0, AppTimerCreate(id == 101 ? 3 : 1000, id, 0, record));
    EXPECT_EQ(-1, AppTimerCreate(1000, 200, 0, record));
    EXPECT_EQ(-1, AppTimerCreate(1, 201, 0, nullptr));
    EXPECT_EQ(0, AppTimerDestory(42));
    EXPECT_EQ(0, AppTimerDestory(101));
    EXPECT_EQ((Slot{kUnarmed, 0, 49}), slot(101));
    EXPECT_EQ(0, AppTimerCreate(1000, 200, 0, record));
    // 101 was due at 3: once a later one has fired, it never will.
    EXPECT_EQ(0, AppTimerDestory(200));
    ASSERT_EQ(0, AppTimerCreate(4, 201, 0, record));
    EXPECT_EQ(1u, fired(201, 1, 4).size());
    EXPECT_TRUE(fired(101).empty());
}

TEST_F(Timer, CallbackMayRearmAndDestroyItsOwnId) {
    ASSERT_EQ(0, AppTimerCreate(2, 43, 0, rearm_three_times));
    EXPECT_EQ(3u, fired(43, 3, 6).size());
    // A fourth round would come 2 after the third: wait past it.
    ASSERT_EQ(0, AppTimerCreate(3, 44, 0, record));
    EXPECT_EQ(1u, fired(44, 1, 3).size());
    EXPECT_EQ(3u, fired(43).size());
    EXPECT_EQ((Slot{kUnarmed, 0, 1}), slot(43));  // 44 has fired but stays in the table
}

// The platform's own timers tick once a second, beside ours.
TEST_F(Timer, RepeatingPeriodCountsFromTheEndOfTheCallbackAndPlatformTicksOncePerSecond) {
    auto &p = qdq_test::platform();
    Lock plat(p.mu);
    const int ticks_before = p.timer_ticks;
    plat.unlock();
    const auto start = Clock::now();
    ASSERT_EQ(0, AppTimerCreate(10, 44, 1, slow));
    auto t = fired(44, 3, 50);
    ASSERT_EQ(3u, t.size());
    for (int i = 1; i < 3; ++i) {
        // 6 in the callback + 10 - 1; half a tick less for the tick's own
        // jitter (a period counted from the callback's start is 10)
        EXPECT_GE(t[i] - t[i - 1], 15 * tick() - tick() / 2);
        EXPECT_LT(t[i] - t[i - 1], 16 * tick() + kSlack);
    }
    plat.lock();
    EXPECT_LE(p.timer_ticks - ticks_before, (Clock::now() - start) / tick() + 1);
    EXPECT_GE(p.timer_ticks - ticks_before, 14);
}

TEST_F(Timer, IdsWithoutAnActionGoToTheHostOrAreLogged) {
    quickevcb.timerevent = host_event;
    ASSERT_EQ(0, AppTimerCreate(3, 27, 1, QdTimeoutHandle));
    ASSERT_EQ(1u, fired(27, 1, 3).size());
    AppTimerDestory(27);
    for (int id : {8, 20, 1000}) QdTimeoutHandle(id);
    quickevcb.timerevent = nullptr;
    QdTimeoutHandle(12);  // no host: must not crash
    Lock lock(g_mu);
    EXPECT_EQ((std::vector<std::vector<int>>{{27, 3, 1, 0}, {8, 0, 0, 0}, {20, 0, 0, 0}, {1000, 0, 0, 0}}), g_fired);
}

}  // namespace
