// The one-second tick and the expiry workers.
//
// The tick is a dedicated thread waiting for absolute deadlines one (scaled)
// second apart, not a SIGALRM handler: a handler that logs (takes a mutex)
// and starts threads is not async-signal-safe, and a process-wide SIGALRM
// would disturb the host. Running in thread context, the countdown can take
// timerlock. What a caller sees is unchanged: one tick per second, each
// expiry on a new detached thread, the same log lines.
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "common/clock.h"
#include "common/log.h"
#include "common/thread.h"
#include "common/timer.h"
#include "qdquick/qdplatform.h"

namespace {

// strerror_r comes in a GNU (char *) and an XSI (int) flavour.
[[maybe_unused]] const char *error_text(int rc, const char *buf) { return rc == 0 ? buf : "Unknown error"; }
[[maybe_unused]] const char *error_text(const char *text, const char *) { return text; }

struct ErrorText {
    char buf[64] = "";
    const char *text;
    explicit ErrorText(int err) : text(error_text(strerror_r(err, buf, sizeof buf), buf)) {}
};

// What an expiry needs, copied under timerlock: the entry may be destroyed
// or handed to another id while the callback runs.
struct Expiry {
    int index;
    int id;
    AppTimerCallback callback;
};

void *expiry_worker(void *arg) {
    std::unique_ptr<Expiry> e(static_cast<Expiry *>(arg));
    // Called without timerlock, so the callback may create or destroy
    // timers, its own id included.
    if (e->callback != nullptr) e->callback(e->id);
    int multtimes = 0, left = 0;
    {
        qdq::MutexLock guard(timerlock);
        AppTimerEntry &t = g_timer[e->index];
        if (t.status != 0 && t.func == e->id) {
            // A repeating timer's period counts from the end of its callback.
            if (t.multtimes != 0) t.left_time = t.total_time;
            multtimes = t.multtimes;
            left = t.left_time;
        }
    }
    QDQ_LOG("AppCreateThreadProcessTimeout end! timerid:%d  multtimes:%d func:%d\tlefttime:%d\n",
            e->index, multtimes, e->id, left);
    return nullptr;
}

void count_down() {
    qdq::MutexLock guard(timerlock);
    for (int i = 0; i < qdq::kTimerCount; ++i) {
        AppTimerEntry &t = g_timer[i];
        // A negative period never fires (and never wraps).
        if (t.status == 0 || t.left_time <= 0 || --t.left_time != 0) continue;
        QDQ_LOG("start process %d, multi:%d\n", t.func, t.multtimes);
        int rc = ENOMEM;
        auto *e = new (std::nothrow) Expiry{i, t.func, t.callback};
        if (e != nullptr) {
            rc = qdq::start_worker(qdq::Work::expiry, expiry_worker, e);
            if (rc != 0) delete e;
        }
        if (rc != 0) {
            QDQ_LOG("create AppProcessTimerTimeout fail!ret=%d err=%s\n", rc, ErrorText(rc).text);
            t.left_time = qdq::kTimerRetrySeconds;
        }
    }
}

std::int64_t to_ns(const timespec &ts) {
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

timespec from_ns(std::int64_t ns) {
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / 1000000000);
    ts.tv_nsec = static_cast<long>(ns % 1000000000);
    return ts;
}

void *AppStartTimer(void *) {
    QDQ_LOG("AppStartTimer start!");
    const std::int64_t period = qdq::scaled(1.0).count();
    timespec now;
    if (period <= 0 || clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        QDQ_LOG("Set timer failed!");
        return nullptr;
    }
    std::int64_t next = to_ns(now);
    for (;;) {
        next += period;
        const timespec deadline = from_ns(next);
        int rc;
        while ((rc = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr)) == EINTR) {
        }
        if (rc != 0) {
            QDQ_LOG("Set timer failed!");
            return nullptr;
        }
        AppProcessTimerTimeout(0);
        // After a stall the missed ticks are dropped rather than run in a
        // burst, as pending interval-timer signals would coalesce.
        if (clock_gettime(CLOCK_MONOTONIC, &now) == 0 && to_ns(now) - next > period) next = to_ns(now);
    }
}

}  // namespace

extern "C" QDQ_API int AppCreateTimerProcessThread(void) {
    QDQ_LOG("AppCreateTimerProcessThread start!\n");
    int expected = 0;
    // Claimed before the thread starts, so two callers cannot both start one.
    if (!timerflag.compare_exchange_strong(expected, 1)) {
        QDQ_LOG("timer is already exist, return!");
        return 0;
    }
    int rc = qdq::start_thread(nullptr, AppStartTimer, nullptr, true, "qdq-timer");
    if (rc != 0) {
        timerflag.store(0);
        QDQ_LOG("create AppProcessTimer fail!ret=%d err=%s\n", rc, ErrorText(rc).text);
        return -1;
    }
    QDQ_LOG("create AppProcessTimer success");
    return 0;
}

extern "C" QDQ_API void AppProcessTimerTimeout(int signo) {
    (void)signo;
    count_down();
    // The host's own timers share this tick.
    gwd_process_timer_timeout();
    qdq::reap_workers();
}
