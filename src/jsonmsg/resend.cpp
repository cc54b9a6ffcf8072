// Timer 18: the kept "RequestPlug-in" reply is sent again until the manage
// platform acknowledges it (its "Result" 1 or -1 reaches the dispatcher).
#include <cstring>

#include "common/fd_slots.h"
#include "common/json.h"
#include "common/log.h"
#include "common/socket.h"
#include "jsonmsg/processjsonmsg.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/session.h"

namespace {

constexpr int kResendLimit = 4;
constexpr int kResendPeriod = 60;  // seconds
constexpr unsigned kTcpAnswerWait = 10;  // seconds, as for a Boot
constexpr std::size_t kAnswerSize = 512;

// An answer that carries "Result" is the platform's acknowledgement.
bool is_acknowledgement(const char *text) {
    qdq::JsonPtr obj(cJSON_Parse(text));
    return obj && cJSON_GetObjectItemCaseSensitive(obj.get(), "Result") != nullptr;
}

// Sends the kept reply; true when the platform's acknowledgement came back
// here (and was handed to the dispatcher). Otherwise it arrives where the
// platform's other messages arrive and reaches the dispatcher from there,
// which stops the resends; until then every resend counts as unanswered.
bool resend(const char *kept) {
    if (manageplatinfo.tcpflag != 0) {
        // A kept connection: the reply goes out on it, and the channel's
        // receive loop reads the answer (the TCP request client would close
        // the connection the channel is still reading).
        qdq::Fd live(qdq::duplicate_slot(&manageplatinfo.socketfd));
        if (live.valid()) {
            if (HgTcpSend(live.get(), kept) < 1) QDQ_LOG("HGResendManagePlatReply: send failed");
            return false;
        }
        // None kept: the TCP request client makes one for this exchange and
        // closes it again, as nothing else would read it.
        char answer[kAnswerSize + 1] = "";
        if (HGSendTcpRequestOnce(QDQ_PLAT_MANAGE, kept, answer, kTcpAnswerWait) != 0) return false;
        const char *text = answer + 4;  // after the frame header
        if (!is_acknowledgement(text)) return false;
        int type = QDQ_PLAT_MANAGE;
        HGProcessPlatJsonMsg(text, nullptr, &type);
        return true;
    }
    // Over UDP from the platform's local port, where the local UDP service
    // listens for the answer.
    char answer[kAnswerSize] = "";
    HGSendUdpRequest(manageplatinfo.localport, manageplatinfo.curip, manageplatinfo.port, kept, answer, 0);
    return false;
}

}  // namespace

void HGResendManagePlatReply() {
    QDQ_LOG("HGResendManagePlatReply() start!");
    char kept[sizeof platreplybuf];
    std::memcpy(kept, platreplybuf, sizeof kept);
    kept[sizeof kept - 1] = '\0';
    if (kept[0] == '\0') {
        QDQ_LOG("platreplybuf is null!");
    } else if (resend(kept)) {
        QDQ_LOG("HGResendManagePlatReply() end!");
        return;
    }
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
