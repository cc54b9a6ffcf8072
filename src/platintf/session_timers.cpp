// The session's actions in the timer dispatcher (QdTimeoutHandle).
#include "common/timer.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"

namespace qdq {

void connect_soon(int timerid, int seconds) { timer_arm_within(seconds, timerid, QdTimeoutHandle); }

void timer_connect_manage(int) { HGConnectManagePlat(&manageplatinfo); }

void timer_connect_plugin(int) { HGConnectPluginPlat(); }

void timer_heartbeat(int timerid) {
    HGProcessPlatHeatbeat(timerid == kTimerManageHeartbeat ? QDQ_PLAT_MANAGE : QDQ_PLAT_PLUGIN);
}

void timer_heartbeat_timeout(int timerid) {
    ProcessHeartBeatReply(nullptr, timerid == kTimerManageHbTimeout ? QDQ_PLAT_MANAGE : QDQ_PLAT_PLUGIN);
}

void disconnect_plugin_if_registered(int) {
    if (pluginplatinfo.regflag != 0) HGDisconnectPlat(QDQ_PLAT_PLUGIN);
}

}  // namespace qdq
