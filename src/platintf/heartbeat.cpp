// Heartbeats of the manage and plugin platforms: one per timer expiry, each
// arming the reply time-out that carries the cycle on.
#include "common/log.h"
#include "common/resolve.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"
#include "platintf/session_msg.h"

void HGProcessPlatHeatbeat(int plattype) {
    if (plattype != QDQ_PLAT_MANAGE && plattype != QDQ_PLAT_PLUGIN) {
        QDQ_LOG("platinfo NULL");
        return;
    }
    platinfo *rec = getPlatInfo(plattype);
    QDQ_LOG("start HGProcessPlatHeatbeat!");
    HgSetPlateStatus(plattype, "heartbeating", 0);
    const qdq::CText msg = GenerateHeartBeatMessage(plattype);
    if (rec->regflag == 0) {
        // No timer is armed: the cycle ends here.
        QDQ_LOG("plat is not registed, return!");
        return;
    }
    if (!msg) {
        // Not built (out of memory): counts as a failed heartbeat.
        ProcessHeartBeatReply(nullptr, plattype);
        return;
    }
    if (AppGetIPFromDNS(rec->heartbeatip) == -1) {
        qdq::connect_soon(qdq::kTimerConnectManage, 60);
        return;
    }
    if (plattype == QDQ_PLAT_MANAGE && rec->tcpflag == 0) {
        // The answer comes later, through the local request service on the
        // same local port, and cancels the time-out.
        // The time-out is armed before the send: an answer that comes back
        // before it was armed would cancel nothing, and the late time-out
        // would then end a live session.
        char reply[512];
        AppTimerCreate(20, qdq::kTimerManageHbTimeout, 0, QdTimeoutHandle);
        const int ret = HGSendUdpRequest(rec->localport, rec->heartbeatip, rec->heartbeatport, msg.get(), reply, 0);
        QDQ_LOG("send udp heartbeat return %d", ret);
        if (ret == -1) {
            AppTimerDestory(qdq::kTimerManageHbTimeout);
            QDQ_LOG("invalid internet connection!");
            HGDisconnectPlat(QDQ_PLAT_MANAGE);
        }
        return;
    }
    HGSendTcpHeartBeat(msg.get(), plattype);
}

void HGSendTcpHeartBeat(const char *message, int plattype) {
    if (message == nullptr) {
        AppMgrLogLine(qdq::kLogTrace, "HGSendTcpHeartBeat msgbuf is null");
        return;
    }
    if (plattype != QDQ_PLAT_MANAGE && plattype != QDQ_PLAT_PLUGIN) {
        AppMgrLogLine(qdq::kLogTrace, "platinfo is null");
        return;
    }
    platinfo *rec = getPlatInfo(plattype);
    // Armed before the send, for the same reason as the UDP heartbeat's:
    // the channel thread may receive the answer before HgTcpSend returns.
    const int timeout = plattype == QDQ_PLAT_MANAGE ? qdq::kTimerManageHbTimeout : qdq::kTimerPluginHbTimeout;
    rec->hbreplied = 0;
    AppTimerCreate(20, timeout, 0, QdTimeoutHandle);
    if (qdq::session_send(rec, message) < 1) {
        // A heartbeat that could not be sent fails at once.
        AppTimerDestory(timeout);
        ProcessHeartBeatReply(nullptr, plattype);
    }
    QDQ_LOG("HGSendTcpHeartBeat end!\n");
}
