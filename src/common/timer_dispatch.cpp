// QdTimeoutHandle: the common timer callback, mapping a timer id to its
// action. Ids without an action go to the host's timer event callback.
#include "common/log.h"
#include "common/timer.h"
#include "jsonmsg/processjsonmsg.h"
#include "localsvc/callbacks.h"

namespace {

void reboot_gateway(int) { safeSystem("reboot"); }
void resend_manage_reply(int) { HGResendManagePlatReply(); }

struct TimerAction {
    int id;
    void (*action)(int timerid);
};

constexpr TimerAction kTimerActions[] = {
    // Session timers (9, 10, 13 to 19) join here with their modules.
    {18, resend_manage_reply},
    {28, reboot_gateway},
};

void host_timer_event(int timerid) {
    auto event = quickevcb.timerevent;
    if (event == nullptr) {
        QDQ_LOG("QdTimeoutHandle: unhandled timer %d", timerid);
        return;
    }
    int period = 0, multtimes = 0;
    {
        qdq::TimerGuard guard;
        int index = qdq::timer_index(timerid);
        if (index >= 0) {
            period = g_timer[index].total_time;
            multtimes = g_timer[index].multtimes;
        }
    }
    event(timerid, period, multtimes, 0);
}

}  // namespace

extern "C" QDQ_API void QdTimeoutHandle(int timerid) {
    for (const TimerAction &a : kTimerActions) {
        if (a.id == timerid) {
            a.action(timerid);
            return;
        }
    }
    host_timer_event(timerid);
}
