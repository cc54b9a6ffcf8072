// Application timers: a fixed table of one-second countdowns keyed by a
// small caller-chosen id. Shared by the create/destroy calls, the tick
// thread, the expiry workers and the dispatcher (and reached by the tests).
#pragma once

#include <pthread.h>

#include <atomic>

#include "common/mutex.h"
#include "qdquick/qdquick.h"

namespace qdq {

inline constexpr int kTimerCount = 50;
// Seconds after which an expiry whose thread could not be started is retried.
inline constexpr int kTimerRetrySeconds = 5;

}  // namespace qdq

struct AppTimerEntry {
    int status;      // 1 once created, 0 for a free entry
    int total_time;  // period in seconds (reload value)
    int left_time;   // seconds left; 0 means not running
    int func;        // the timer id; 0 marks a free entry
    int multtimes;   // non-zero: reloaded from total_time after each expiry
    AppTimerCallback callback;
};

// The table and its count, guarded by timerlock (held through
// qdq::MutexLock, so that a cancelled caller never leaves it locked).
extern qdq::Mutex timerlock;
extern AppTimerEntry g_timer[qdq::kTimerCount] QDQ_GUARDED_BY(timerlock);
extern int CurTimerNum QDQ_GUARDED_BY(timerlock);
// 1 once the tick thread has been started.
extern std::atomic<int> timerflag;

namespace qdq {

// Index of the entry holding `timerid`, or -1. Needs timerlock.
int timer_index(int timerid) QDQ_REQUIRES(timerlock);

// Arms `timerid` to fire within `seconds`: like AppTimerCreate, except that
// a running countdown longer than that is cut short. For "do this soon"
// requests on an id that may also carry a long periodic countdown.
int timer_arm_within(int seconds, int timerid, AppTimerCallback callback);

}  // namespace qdq
