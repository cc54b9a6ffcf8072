// Timer 18: the kept "RequestPlug-in" reply is sent again until the manage
// platform acknowledges it (its "Result" 1 or -1 reaches the dispatcher).
#include <cstring>

#include "common/log.h"
#include "jsonmsg/processjsonmsg.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/session.h"

namespace {

constexpr int kResendLimit = 4;
constexpr int kResendPeriod = 60;  // seconds
constexpr std::size_t kAnswerSize = 512;

// Sends the kept reply. Neither way waits here: the platform's
// acknowledgement arrives where its other messages arrive and reaches the
// dispatcher from there, which stops the resends. So every resend counts as
// unanswered until then.
void resend(const char *kept) {
    if (manageplatinfo.tcpflag != 0) {
        // Over TCP the reply goes out on the kept connection; the channel's
        // receive loop owns every read on that socket. The TCP request
        // client is not used here: with no wait it would close the
        // connection the channel is still reading.
        if (qdq::session_send(&manageplatinfo, kept) < 0) QDQ_LOG("HGResendManagePlatReply: no manage connection");
        return;
    }
    // Over UDP from the platform's local port, where the local UDP service
    // listens for the answer.
    char answer[kAnswerSize] = "";
    HGSendUdpRequest(manageplatinfo.localport, manageplatinfo.curip, manageplatinfo.port, kept, answer, 0);
}

}  // namespace

void HGResendManagePlatReply() {
    QDQ_LOG("HGResendManagePlatReply() start!");
    char kept[sizeof platreplybuf];
    std::memcpy(kept, platreplybuf, sizeof kept);
    kept[sizeof kept - 1] = '\0';
    if (kept[0] == '\0')
        QDQ_LOG("platreplybuf is null!");
    else
        resend(kept);
    if (++platresendnum >= kResendLimit) {
        // Give up and connect the manage platform again.
        std::memset(platreplybuf, 0, sizeof platreplybuf);
        platresendnum = 0;
        qdq::connect_soon(qdq::kTimerConnectManage, 2);
    } else {
        AppTimerCreate(kResendPeriod, qdq::kTimerResendReply, 0, QdTimeoutHandle);
    }
    QDQ_LOG("HGResendManagePlatReply() end!");
}
