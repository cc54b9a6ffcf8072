// Timer ids the library arms with QdTimeoutHandle. An id names an action
// (see the table in jsonmsg/timer_dispatch.cpp); ids without one, the cube
// connect timer among them, reach the host's timer event callback, so the
// values are part of what a host sees and never change.
#pragma once

namespace qdq {

enum TimerId : int {
    kTimerConnectCube = 8,         // connect the cube platform (the host's action)
    kTimerConnectManage = 9,       // connect or reconnect the manage platform
    kTimerConnectPlugin = 10,      // connect the plugin platform
    kTimerManageHeartbeat = 13,    // send the manage platform's next heartbeat
    kTimerManageHbTimeout = 14,    // the manage heartbeat's reply is overdue
    kTimerPluginHeartbeat = 15,    // send the plugin platform's next heartbeat
    kTimerPluginHbTimeout = 16,    // the plugin heartbeat's reply is overdue
    kTimerPluginDisconnect = 17,   // drop the plugin platform if still registered
    kTimerResendReply = 18,        // resend the kept reply to the manage platform
    kTimerManageLocalService = 19, // start the manage platform's local request service
    kTimerReboot = 28,             // reboot the gateway
};

}  // namespace qdq
