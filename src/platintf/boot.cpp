// The Boot procedure: resolve the platform, send Boot until an address
// answers with its challenge, retrying by fixed rules.
#include <cstdio>
#include <cstring>

#include "common/clock.h"
#include "common/log.h"
#include "common/resolve.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"
#include "platintf/session_msg.h"

namespace {

using qdq::GuardPoint;

int connect_timer_of(int plattype) {
    switch (plattype) {
    case QDQ_PLAT_CUBE: return qdq::kTimerConnectCube;
    case QDQ_PLAT_MANAGE: return qdq::kTimerConnectManage;
    default: return qdq::kTimerConnectPlugin;
    }
}

// The chosen address must be of the device's own family.
bool family_matches(const char *address) {
    if (deviceinfo.ipmode == AF_INET && !isValidIpAddress(AF_INET, address)) {
        QDQ_LOG("local ipaddress is ipv4, buf plat address is not ipv4");
        return false;
    }
    if (deviceinfo.ipmode == AF_INET6 && !isValidIpAddress(AF_INET6, address)) {
        QDQ_LOG("local ipaddress is ipv6, buf plat address is not ipv6");
        return false;
    }
    return true;
}

// What follows one unusable reply (kSessionNoReply).
enum class Next { SameAddress, NewRound, GiveUp };

struct BootState {
    int plattype;
    platinfo *rec;
    int last = 100;  // index of the last address used; 100 = none
    int failures = 0;
    int rounds = 0;
};

Next after_unusable_reply(BootState &st) {
    if (++st.failures < 2) {
        QDQ_LOG("boot failed, after 60s retry!\n");
        qdq::sleep_for(60);
        return Next::SameAddress;
    }
    if (++st.rounds >= 2) {
        // Over UDP the caller goes on over TCP.
        if (st.rec->tcpflag == 0) {
            QDQ_LOG("#####udp req regnum is 3, use tcp!\n");
            QDQ_LOG("HgProcessBoot end! ret=%d\n", -1);
        } else {
            QDQ_LOG("#####tcp req regnum is 3, use udp!\n");
        }
        return Next::GiveUp;
    }
    st.failures = 0;
    const int wait = (qdq::time_seeded_rand() % 4 + 3) * 60;
    QDQ_LOG("###try reg interval is %d\n", wait);
    qdq::sleep_for(wait);
    return Next::NewRound;
}

}  // namespace

int HgProcessBoot(int plattype) {
    QDQ_LOG("HgProcessBoot start! plattype:%d\tipmode:%d", plattype, deviceinfo.ipmode);
    platinfo *rec = getPlatInfo(plattype);
    if (rec == nullptr) return 0;
    const int connect_timer = connect_timer_of(plattype);
    const bool plugin = plattype == QDQ_PLAT_PLUGIN;
    QDQ_LOG("plataddr:%s port:%d\n", rec->MgtURL, static_cast<int>(rec->port));
    HgSetPlateStatus(plattype, "connecting", 0);

    BootState st{plattype, rec};
    char reply[qdq::kSessionReplySize];
    char list[qdq::kMaxPlatAddresses][qdq::kAddrTextSize];
    for (;;) {  // one round: resolve the name afresh
        if (!qdq::is_newest_connect_thread(plattype, GuardPoint::BootRound)) return kSessionSuperseded;
        // Sized to the printed text: a long "ChildRouter" list goes out whole.
        const qdq::CText msg = GenerateBootMessage(plattype);
        if (!msg) {
            HgSetPlateStatus(plattype, "try_connect_failed", -1);
            return kSessionNoAddress;
        }
        std::memset(list, 0, sizeof list);
        const int count = AppGetIPListFromDNS(rec->MgtURL, list, deviceinfo.ipmode, qdq::kMaxPlatAddresses);
        QDQ_LOG("server have %d ip address!", count);
        if (count <= 0) {
            AppMgrLogLine(qdq::kLogTrace, "%s line %d : ## error server addr %s is invalid, plattype:%d, deviceinfo.ipmode:%d ##",
                          qdq::kPlatModule, __LINE__, rec->MgtURL, plattype, deviceinfo.ipmode);
            qdq::connect_soon(connect_timer, 5);
            HgSetPlateStatus(plattype, "try_connect_failed", -1);
            return kSessionNoAddress;
        }
        Next next = Next::SameAddress;
        while (next != Next::NewRound) {  // one address of the list
            if (!qdq::is_newest_connect_thread(plattype, GuardPoint::BootAddress)) return kSessionSuperseded;
            st.last = qdq::pick_address(count, st.last);
            std::snprintf(rec->curip, sizeof rec->curip, "%s", list[st.last]);
            if (!family_matches(rec->curip)) return kSessionWrongFamily;
            for (;;) {  // one attempt toward this address
                QDQ_LOG("BOOT to server: %s\n", rec->curip);
                const char *text = reply;
                const int sent = qdq::session_exchange(plattype, *rec, msg.get(), reply, 10, &text);
                if (!qdq::is_newest_connect_thread(plattype, GuardPoint::BootSent)) return kSessionSuperseded;
                if (sent == -1) {
                    HgSetPlateStatus(plattype, "try_connect_failed", -1);
                    if (plugin) {
                        QDQ_LOG("plugin boot return -1, return!\n");
                        // The TCP client has already closed a failed
                        // exchange's connection and taken it out of the
                        // record; this only resets it, under the lock.
                        qdq::close_session_socket(rec);
                    }
                    QDQ_LOG("invalid internet connection!\n");
                    return kSessionNoAddress;
                }
                QDQ_LOG("reply code:%d\n", sent);
                if (plattype == QDQ_PLAT_MANAGE && rec->tcpflag != 0) {
                    // The manage platform is never booted over TCP; its
                    // connection is not kept open for nothing.
                    HgSetPlateStatus(plattype, "try_connect_failed", -1);
                    qdq::close_session_socket(rec);
                    return kSessionNoReply;
                }
                const int result = ProcessBootReply(text, plattype);
                if (result == kResultRedirect) break;  // the platform sends us elsewhere
                if (result != kSessionNoReply) {
                    QDQ_LOG("HgProcessBoot end! ret=%d\n", result);
                    return result;
                }
                HgSetPlateStatus(plattype, "try_connect_failed", -1);
                qdq::close_session_socket(rec);
                if (plugin) {
                    QDQ_LOG("plugin boot return -1, return\n");
                    return kSessionNoReply;
                }
                next = after_unusable_reply(st);
                if (next == Next::GiveUp) return kSessionNoReply;
                if (next == Next::NewRound) break;
            }
        }
    }
}
