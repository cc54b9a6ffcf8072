// QdTimeoutHandle: the common timer callback, mapping a timer id to its
// action. Ids without an action go to the host's timer event callback.
// It sits in jsonmsg, the one layer above both platintf and localsvc whose
// actions it calls, so that common depends on no layer above it.
#include "common/host.h"
#include "common/ids.h"
#include "common/log.h"
#include "common/timer.h"
#include "jsonmsg/processjsonmsg.h"
#include "localsvc/quickinstall.h"
#include "platintf/session.h"

namespace {

void reboot_gateway(int) { safeSystem("reboot"); }
void resend_manage_reply(int) { HGResendManagePlatReply(); }

// The manage platform's local request service, TCP or UDP by its record's
// tcpflag. The UDP service occupies this expiry thread while it runs; the
// TCP one serves only local clients and refuses plattype 2 at once.
void start_manage_local_service(int) {
    static int manage = QDQ_PLAT_MANAGE;  // read by the service for its whole life
    if (manageplatinfo.tcpflag == 1)
        StartProcessTcpRequest(&manage);
    else
        StartProcessUdpRequest(&manage);
}

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
    {qdq::kTimerResendReply, resend_manage_reply},
    {qdq::kTimerManageLocalService, start_manage_local_service},
    {qdq::kTimerReboot, reboot_gateway},
};

void host_timer_event(int timerid) {
    auto event = quickevcb.timerevent;
    if (event == nullptr) {
        QDQ_LOG("QdTimeoutHandle: unhandled timer %d", timerid);
        return;
    }
    int period = 0, multtimes = 0;
    {
        qdq::MutexLock guard(timerlock);
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
