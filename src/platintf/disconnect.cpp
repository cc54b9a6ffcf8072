// Tearing a platform session down: heartbeat timers, the channel's loop
// thread, the session socket and the heartbeat settings.
#include <cstring>

#include "common/fd_slots.h"
#include "common/log.h"
#include "common/thread.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"

extern "C" QDQ_API int HGDisconnectPlat(int plattype) {
    QDQ_LOG("HGDisconnectPlat start! plattype:%d", plattype);
    HgSetPlateStatus(plattype, "disconnect", 0);
    if (plattype != QDQ_PLAT_MANAGE && plattype != QDQ_PLAT_PLUGIN) return 0;
    const bool manage = plattype == QDQ_PLAT_MANAGE;
    platinfo *rec = getPlatInfo(plattype);
    if (manage) {
        AppTimerDestory(qdq::kTimerManageHeartbeat);
        AppTimerDestory(qdq::kTimerManageHbTimeout);
        AppTimerDestory(qdq::kTimerManageLocalService);
    } else {
        AppTimerDestory(qdq::kTimerPluginHeartbeat);
        AppTimerDestory(qdq::kTimerPluginHbTimeout);
    }
    QDQ_LOG("HGDisconnectPlat end! tid = %lu socketfd = %d", qdq::thread_number(rec->tid), rec->socketfd);
    int ret = 0;
    // `tid` is left as it is, and only a receive loop that still runs on it
    // is cancelled: the id of a finished thread may name another one by now.
    const pthread_t tid = rec->tid;
    if (qdq::thread_set(tid) && !pthread_equal(tid, pthread_self())) {
        const int rc = qdq::cancel_channel_thread(plattype, tid);
        if (rc > 0) {
            ret = rc;
            QDQ_LOG("send cancel disconnect plat fail,ret:%d", rc);
        } else if (rc == 0) {
            QDQ_LOG("send cancel disconnect plat ok, tid:%lu", qdq::thread_number(tid));
        }
    }
    // Shut down before closing: a channel loop reads from a duplicate of
    // this descriptor, and a read blocked inside a half-sent frame must
    // end now, as it would when the connection's last descriptor closes.
    // The manage record may publish its local UDP service's socket: the
    // disconnect closes that one too, which ends the service.
    qdq::close_slot(&rec->socketfd, true);
    std::memset(rec->heartbeatip, 0, sizeof rec->heartbeatip);
    rec->heartbeatport = 0;
    rec->interval = 0;
    rec->regflag = 0;
    QDQ_LOG("HGDisconnectPlat end! plattype:%d", plattype);
    if (!manage) {
        // The reconnect comes from whoever disconnected it.
        QDQ_LOG("diconnect plugin platform ,need send boot message to platform now .\r\n");
    } else if (rec->isinreg == 0) {
        QDQ_LOG("diconnect manager platform ,need send boot message to platform now .\r\n");
        qdq::connect_soon(qdq::kTimerConnectManage, 5);
    } else {
        QDQ_LOG("diconnect manager platform ,and manager platform is connecting. isinreg = %d \r\n", rec->isinreg);
    }
    return ret;
}
