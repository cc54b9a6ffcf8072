// The timer table: create, re-arm and destroy entries.
#include "common/timer.h"

#include <algorithm>
#include <iterator>

#include "common/log.h"

// Statically initialised: AppInitTimerModule may run while the tick thread
// exists, and re-initialising a mutex another thread may hold is undefined.
qdq::Mutex timerlock;
AppTimerEntry g_timer[qdq::kTimerCount];
int CurTimerNum = 0;
std::atomic<int> timerflag{0};

namespace qdq {

int timer_index(int timerid) {
    for (int i = 0; i < kTimerCount; ++i)
        if (g_timer[i].func == timerid) return i;
    return -1;
}

}  // namespace qdq

// Empties the table. The count and the tick thread are left as they are.
extern "C" QDQ_API int AppInitTimerModule(void) {
    qdq::MutexLock guard(timerlock);
    std::fill(std::begin(g_timer), std::end(g_timer), AppTimerEntry{});
    return 0;
}

extern "C" QDQ_API int AppTimerCreate(int seconds, int timerid, int multtimes,
                                      AppTimerCallback callback) {
    QDQ_LOG("AppTimerCreate start! timerID=%d", timerid);
    if (callback == nullptr) {
        QDQ_LOG("AppTimerCreate, timerCallback is NULL,return;");
        return -1;
    }
    // Id 0 marks a free entry; "creating" it would make a free entry run.
    if (timerid == 0) {
        QDQ_LOG("AppTimerCreate, timerID 0 is reserved,return;");
        return -1;
    }
    int index = -1, total = 0, count = 0;
    {
        qdq::MutexLock guard(timerlock);
        index = qdq::timer_index(timerid);
        const bool fresh = index < 0;
        if (!fresh) {
            QDQ_LOG("timer is already exist! id:%d", index);
        } else {
            index = qdq::timer_index(0);
            if (index < 0) {
                QDQ_LOG("timer num is maximum!");
                return -1;
            }
            QDQ_LOG("timer is not exist! create new one id:%d", index);
            ++CurTimerNum;
        }
        AppTimerEntry &t = g_timer[index];
        t.total_time = seconds;
        // A running countdown is never restarted, shortened or lengthened;
        // only a fired (or new) timer takes the new period.
        if (!fresh && t.left_time != 0)
            QDQ_LOG("func:%d timer exited,left_time = %d\n", timerid, t.left_time);
        else
            t.left_time = seconds;
        t.func = timerid;
        t.multtimes = multtimes;
        t.status = 1;
        t.callback = callback;
        QDQ_LOG("i:%d\ttotal_time:%d\tleft_time:%d\tfunc:%d\t\tmulttimes:%d\tstatus:%d\n", index,
                t.total_time, t.left_time, t.func, t.multtimes, t.status);
        if (fresh && timerflag.load() == 0) AppCreateTimerProcessThread();
        total = t.total_time;
        count = CurTimerNum;
    }
    QDQ_LOG("AppTimerCreate end! timerid is %d, total_time:%d,current timer num is %d\n", index,
            total, count);
    return 0;
}

extern "C" QDQ_API int AppTimerDestory(int timerid) {
    QDQ_LOG("AppTimerDestory start, func=%d", timerid);
    if (timerid == 0) return 0;
    int index = -1, count = 0;
    {
        qdq::MutexLock guard(timerlock);
        count = CurTimerNum;
        if (count != 0) {
            index = qdq::timer_index(timerid);
            if (index >= 0) {
                g_timer[index] = AppTimerEntry{};
                count = --CurTimerNum;
            }
        }
    }
    if (count == 0 && index < 0)
        QDQ_LOG("Current Timer number is 0, return!");
    else if (index < 0)
        QDQ_LOG("not found timer, timer is already destory!");
    else
        QDQ_LOG("AppTimerDestory end! timerid is %d, current timer num is %d\n", index, count);
    return 0;
}

int qdq::timer_arm_within(int seconds, int timerid, AppTimerCallback callback) {
    const int rc = AppTimerCreate(seconds, timerid, 0, callback);
    if (rc != 0) return rc;
    qdq::MutexLock guard(timerlock);
    const int index = qdq::timer_index(timerid);
    if (index >= 0 && g_timer[index].left_time > seconds) {
        QDQ_LOG("timer %d: %d s left, due in %d s now", timerid, g_timer[index].left_time, seconds);
        g_timer[index].left_time = seconds;
    }
    return 0;
}

// Kept for the interface: the table walk it stands for writes no output.
extern "C" QDQ_API void DumpAppTimerInfo(int index) { (void)index; }
