// Platform sessions: the Boot and Register procedures, heartbeats, the
// persistent TCP channel, and connecting and disconnecting a platform.
// The exported entries (HGConnect*Plat, HGDisconnectPlat,
// CreateConnectPluginPlatThread) are declared in qdquick/qdquick.h.
#pragma once

#include <pthread.h>

#include "common/ids.h"
#include "qdquick/qdquick.h"

// What the Boot and Register procedures and the connects return. The
// platform's own "Result" passes through them as an int, so a result is
// either one of the session's codes (101-103), or a platform "Result" (0:
// Boot answered or registered, positive: registered), of which the session
// names the ones it acts on. -1 is both: the session's "no usable reply"
// and a platform's Result -1 are handled alike.
enum SessionResult : int {
    kSessionNoAddress = 101,    // no address / transport failed
    kSessionSuperseded = 102,   // a newer connect thread took over
    kSessionWrongFamily = 103,  // address family mismatch (Boot)
    kSessionNoReply = -1,       // no usable reply (over UDP the connect goes on over TCP)
    kResultBootAgain = -2,      // Register: Boot again
    kResultRefused = -3,        // Register: the challenge answer was refused
    kResultRedirect = -5,       // Boot: try another of the platform's addresses
    kResultAnswered = 0,        // Boot: challenge received; Register: registered (plugin)
};

// True for the session's own codes, which end a connect whatever the
// platform; false for anything a platform may have answered.
inline bool is_session_failure(int ret) {
    return ret == kSessionNoAddress || ret == kSessionSuperseded || ret == kSessionWrongFamily;
}

namespace qdq {

// One connect's hold on its platform record (`isinreg`). Taken by a test and
// set in one step: two connects started together (a timer expiry and the
// host, say) would otherwise both go on from the same local port and read
// each other's Boot replies. Given back once, the same atomic way: where the
// procedure hands the record over early (Register's own ends, the plugin's
// channel loop), else when the connect ends by return, exception or thread
// cancellation.
class RecordClaim {
public:
    explicit RecordClaim(platinfo &rec)
        : flag_(&rec.isinreg), held_(__atomic_exchange_n(flag_, 1, __ATOMIC_ACQ_REL) == 0) {}
    ~RecordClaim() { release(); }
    RecordClaim(const RecordClaim &) = delete;
    RecordClaim &operator=(const RecordClaim &) = delete;

    // False when another connect held the record.
    bool held() const { return held_; }
    void release() {
        if (held_) __atomic_store_n(flag_, 0, __ATOMIC_RELEASE);
        held_ = false;
    }

private:
    unsigned char *flag_;
    bool held_;
};

}  // namespace qdq

// Blocking procedures; return a SessionResult or the platform's "Result".
// Register gives `claim` (the connect's, when one runs) back where the
// record is done with: "connected", Boot-again and the plugin's failure.
int HgProcessBoot(int plattype);
int HgProcessRegister(int plattype, qdq::RecordClaim *claim = nullptr);

// Timer actions 13/15: one heartbeat to the manage or plugin platform.
void HGProcessPlatHeatbeat(int plattype);
// One heartbeat on the session socket; a failed send counts as a time-out.
void HGSendTcpHeartBeat(const char *message, int plattype);

// The persistent channel's receive loop; blocks until the channel ends.
void HgProcessPlatTcpConnect(int plattype);
// Handles one message received on `plattype`'s channel: takes ownership of
// the malloc'ed text. Returns 0, or -1 when the channel must end. (The
// platform is passed rather than deduced from the calling thread: the id
// of a finished loop thread may already name a worker.)
int HgProcessPlatTcpRequest(char *message, int plattype);
// Thread body of CreateConnectPluginPlatThread.
void *StartProcessConnectPluginPlat(void *);

// Held by a plugin-channel worker while it copies its message.
extern pthread_mutex_t tcpreq_mutex;

namespace qdq {

inline bool thread_set(pthread_t t) { return !pthread_equal(t, pthread_t{}); }

// Asks for a connect of the platform behind connect timer `timerid` within
// `seconds`. Over TCP that timer also counts down the periodic reconnect,
// hours away; a plain AppTimerCreate would leave that countdown running and
// the request would be lost until then.
void connect_soon(int timerid, int seconds);

// Most addresses a platform name is resolved into.
inline constexpr int kMaxPlatAddresses = 20;

// Where a procedure checks the thread guard (each logs its own line).
enum class GuardPoint { BootRound, BootAddress, BootSent, Register };

// Thread guard of the manage and cube procedures: true while the calling
// thread is the newest connect thread (platregtid); always true for the
// plugin platform. Otherwise logs the point's line.
bool is_newest_connect_thread(int plattype, GuardPoint point);

// Reply buffer of one exchange: the transports fill 512 bytes, the last
// byte stays NUL so that a full reply is still a terminated text.
inline constexpr int kSessionReplySize = 513;

// One Boot or Register exchange by the record's transport (tcpflag) and the
// device's address family (ipmode), waiting `wait` seconds. Returns the
// transport's result (0 reply received, -1 none); *text points at the
// reply text inside `reply` (after the frame header over TCP).
int session_exchange(int plattype, const platinfo &rec, const char *msg,
                     char (&reply)[kSessionReplySize], unsigned wait, const char **text);

// Index among `count` resolved addresses: the only one, else a draw seeded
// with the current second that differs from `last` (100 = none yet).
int pick_address(int count, int last);

// Time-seeded pseudo-random number (the session's draws of ports and waits).
int time_seeded_rand();

// Closes the record's session socket (when it holds one, shut down first
// when asked) and stores -1. A local UDP service's socket published in the
// manage record is taken out but left open to its service; only
// HGDisconnectPlat ends that service.
void close_session_socket(platinfo *rec, bool shut_down = false);

// Sends one frame on the record's session connection (HgTcpSend's result;
// -1 without one). Every send on a connection that another thread may
// close goes through here: see duplicate_slot.
int session_send(platinfo *rec, const char *text);

// Cancels the platform's receive loop if it still runs on `tid`; returns
// pthread_cancel's result, or -1 when no loop runs there (it has ended, or
// `tid` names another thread, such as the manage platform's local UDP
// service, which ends by itself once the session takes its socket).
int cancel_channel_thread(int plattype, pthread_t tid);


// Timer 17: disconnect the plugin platform if it is still registered.
void disconnect_plugin_if_registered(int timerid);
// Timers 9, 10, 13 and 15 as QdTimeoutHandle actions.
void timer_connect_manage(int timerid);
void timer_connect_plugin(int timerid);
void timer_heartbeat(int timerid);
void timer_heartbeat_timeout(int timerid);

}  // namespace qdq
