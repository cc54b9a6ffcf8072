// Pieces shared by the session procedures: the connect-thread guard, the
// address draw, the session socket and the default platform addresses.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "common/clock.h"
#include "common/fd_slots.h"
#include "common/log.h"
#include "common/socket.h"
#include "common/thread.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/session.h"

namespace qdq {

bool is_newest_connect_thread(int plattype, GuardPoint point) {
    if (plattype != QDQ_PLAT_CUBE && plattype != QDQ_PLAT_MANAGE) return true;
    const pthread_t self = pthread_self();
    if (pthread_equal(platregtid, self)) return true;
    const unsigned long newest = thread_number(platregtid);
    const unsigned long cur = thread_number(self);
    switch (point) {
    case GuardPoint::BootRound:
        QDQ_LOG("rereg, is not newst thread, platregtid:%lu\tcurtid:%lu\n", newest, cur);
        break;
    case GuardPoint::BootAddress:
        QDQ_LOG("retry, is not newst thread, platregtid:%lu\tcurtid:%lu\n", newest, cur);
        break;
    case GuardPoint::BootSent:
        QDQ_LOG("send boot, is not newst thread, platregtid:%lu\tcurtid:%lu", newest, cur);
        break;
    case GuardPoint::Register:
        QDQ_LOG("retry, is not newst thread, platregtid:%lu curtid:%lu\n", newest, cur);
        break;
    }
    return false;
}

int time_seeded_rand() {
    // rand_r on a seed of the current second: the same draw as reseeding the
    // process generator with the time, without sharing its state between
    // the session threads.
    auto seed = static_cast<unsigned>(std::time(nullptr));
    return rand_r(&seed);
}

int pick_address(int count, int last) {
    if (count <= 1) return 0;
    for (;;) {
        int index = time_seeded_rand() % count;
        if (index != last) return index;
        // The same second gives the same draw again: wait for the next one
        // without spinning the processor meanwhile.
        sleep_for(0.05);
    }
}

int session_exchange(int plattype, const platinfo &rec, const char *msg,
                     char (&reply)[kSessionReplySize], unsigned wait, const char **text) {
    reply[kSessionReplySize - 1] = '\0';
    const bool v6 = deviceinfo.ipmode == AF_INET6;
    const auto type = static_cast<unsigned>(plattype);
    int ret;
    if (rec.tcpflag != 0) {
        ret = v6 ? HGSendTcpRequest_v6(type, msg, reply, wait) : HGSendTcpRequest(type, msg, reply, wait);
        *text = reply + 4;  // after the frame header
    } else {
        ret = v6 ? HGSendUdpRequest_v6(rec.localport, rec.curip, rec.port, msg, reply, wait)
                 : HGSendUdpRequest(rec.localport, rec.curip, rec.port, msg, reply, wait);
        *text = reply;
    }
    return ret;
}

void close_session_socket(platinfo *rec, bool shut_down) {
    // Taken out of the record and closed in one step under the descriptor
    // lock: a channel ending by itself and a disconnect from another thread
    // may both get here, and only one of them may close the number; a
    // sender duplicating it meanwhile gets the connection or nothing. The
    // manage record may publish the local UDP service's socket instead:
    // that one is only taken out, and the service goes on answering.
    release_slot(&rec->socketfd, shut_down);
}

int session_send(platinfo *rec, const char *text) {
    Fd sock(duplicate_slot(&rec->socketfd));
    if (!sock.valid()) return -1;
    return HgTcpSend(sock.get(), text);
}

}  // namespace qdq
