// QdTimeoutHandle: the common timer callback, mapping a timer id to its
// action. Ids without an action go to the host's timer event callback.
#include "common/log.h"
#include "common/timer.h"
#include "jsonmsg/processjsonmsg.h"
#include "localsvc/callbacks.h"
#include "platintf/session.h"

namespace {

void reboot_gateway(int) { safeSystem("reboot"); }
void resend_manage_reply(int) { HGResendManagePlatReply(); }

struct TimerAction {
    int id;
    void (*action)(int timerid);
};

constexpr TimerAction kTimerActions[] = {
    {qdq::kTimerConnectManage, qdq::timer_connect_manage},
    {qdq::kTimerConnectPlugin, qdq::timer_connect_plugin},
    {qdq::kTimerManageHeartbeat, qdq::timer_heartbeat},
    {qdq::kTimerManageHbTimeout, qdq::timer_heartbeat_timeout},
    {qdq::kTimerPluginHeartbeat, qdq::timer_heartbeat},
    {qdq::kTimerPluginHbTimeout, qdq::timer_heartbeat_timeout},
    {qdq::kTimerPluginDisconnect, qdq::disconnect_plugin_if_registered},
    {18, resend_manage_reply},
    // Timer 19 joins here with the local services.
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
