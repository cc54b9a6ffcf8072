// The Register procedure: answer the Boot challenge until the platform
// accepts, asks for a new Boot, or a newer connect thread takes over.
#include "common/clock.h"
#include "common/log.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"
#include "platintf/session_msg.h"

namespace {

// The wait before the next attempt (also its reply wait) after `result`;
// other results keep the previous one.
unsigned next_wait(int plattype, bool tcp, int result, unsigned previous) {
    switch (result) {
    case kSessionNoReply: return 5;
    case kResultRedirect:
    case kResultRefused: return 1;
    default: break;
    }
    if (result > 0 && tcp) {
        if (plattype == QDQ_PLAT_MANAGE) return static_cast<unsigned>((qdq::time_seeded_rand() % 3 + 3) * 60);
        if (plattype == QDQ_PLAT_CUBE) return 180;
    }
    return previous;
}

// Refusals of the challenge answer (-3) in a row after which the challenge
// is taken for stale and a new one is fetched. Retrying the same answer can
// never succeed when the platform lost the challenge (it restarted) or when
// a late Boot reply, meant for an earlier attempt from this port, supplied it.
constexpr int kRefusalsBeforeBoot = 5;

}  // namespace

int HgProcessRegister(int plattype, qdq::RecordClaim *claim) {
    QDQ_LOG("HgProcessRegister start!ipmode:%d", deviceinfo.ipmode);
    platinfo *rec = getPlatInfo(plattype);
    if (rec == nullptr) {
        QDQ_LOG("platinfo is NULL");
        return kSessionNoReply;
    }
    const bool plugin = plattype == QDQ_PLAT_PLUGIN;
    HgSetPlateStatus(plattype, "registering", 0);
    unsigned wait = 10;
    int failures = 0;
    int refusals = 0;
    char reply[qdq::kSessionReplySize];
    for (;;) {
        if (!qdq::is_newest_connect_thread(plattype, qdq::GuardPoint::Register)) return kSessionSuperseded;
        const qdq::CText msg = GenerateRegMessage(plattype, rec->challengecode);
        if (!msg) {
            HgSetPlateStatus(plattype, "try_connect_failed", -1);
            return kSessionNoAddress;
        }
        QDQ_LOG("register to server: %s\n", rec->curip);
        const char *text = reply;
        const int sent = qdq::session_exchange(plattype, *rec, msg.get(), reply, wait, &text);
        if (sent == -1) {
            HgSetPlateStatus(plattype, "try_connect_failed", -1);
            if (plugin) {
                QDQ_LOG("plugin reg return -1, return!\n");
                // Already closed by the TCP client; see HgProcessBoot.
                qdq::close_session_socket(rec);
            }
            QDQ_LOG("invalid internet connection!\n");
            return kSessionNoAddress;
        }
        QDQ_LOG("reply code:%d\n", sent);
        const bool tcp = rec->tcpflag != 0;
        if (plattype == QDQ_PLAT_MANAGE && tcp) {
            HgSetPlateStatus(plattype, "try_connect_failed", -1);
            qdq::close_session_socket(rec);
            return sent;
        }
        const int result = ProcessRegReply(text, rec);
        if (result == kSessionNoReply) {
            HgSetPlateStatus(plattype, "try_connect_failed", -1);
            if (plugin) {
                if (claim != nullptr) claim->release();
                QDQ_LOG("plugin reg return -1, return!\n");
                qdq::close_session_socket(rec);
                return kSessionNoReply;
            }
            // The second unusable reply is retried soon; the others after a
            // minute, for as long as this thread stays the newest.
            if (++failures != 2) {
                qdq::sleep_for(60);
                continue;
            }
        }
        if (plugin || (result >= 0 && !tcp)) {
            if (result >= 0) {
                HgSetPlateStatus(plattype, "connected", result);
                rec->regflag = 1;
                srvreplyflag = 0;
                // The manage platform's UDP messages arrive through the
                // local request service.
                if (plattype == QDQ_PLAT_MANAGE)
                    AppTimerCreate(2, qdq::kTimerManageLocalService, 0, QdTimeoutHandle);
            }
            if (claim != nullptr) claim->release();
            QDQ_LOG("HgProcessRegister end! ret=%d\n", result);
            return result;
        }
        if (result == kResultBootAgain) {
            if (claim != nullptr) claim->release();
            QDQ_LOG("%s ret = %d,should return to boot again\n", "HgProcessRegister", result);
            return kResultBootAgain;
        }
        refusals = result == kResultRefused ? refusals + 1 : 0;
        if (refusals == kRefusalsBeforeBoot) {
            QDQ_LOG("register refused %d times in a row, boot again for a new challenge", refusals);
            refusals = 0;
            const int boot = HgProcessBoot(plattype);
            if (boot == kResultAnswered) {
                HgSetPlateStatus(plattype, "registering", 0);
                continue;
            }
            // Failures end the connect as a failed Register would.
            return boot < 0 || is_session_failure(boot) ? boot : kResultBootAgain;
        }
        wait = next_wait(plattype, tcp, result, wait);
        QDQ_LOG("ret=%d\tplattypt:%d\ttimeout:%d\n", result, plattype, static_cast<int>(wait));
        qdq::sleep_for(wait);
    }
}
