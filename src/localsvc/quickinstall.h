// Internal interface of the local request services (module quickinstall):
// the local UDP ports (manage platform's local port, 18401), the local TCP
// port (cubeplatinfo.localsrvport) and the Base64 quick-install port 7998.
#pragma once

#include <pthread.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "qdquick/qdquick.h"

namespace qdq {

// Module name at the head of trace-log lines ("%s line %d ...").
inline constexpr const char *kLocalModule = "quickinstall";

inline constexpr unsigned kLocalUdpPort = 18401;
inline constexpr unsigned kQuickPort = 7998;
inline constexpr int kLocalTcpSlots = 5;
// Live local TCP worker threads at most: the five slot holders plus as many
// that have left their slot (replied, or evicted) and are still finishing.
// A worker leaves its slot before it ends, so the slots alone do not bound
// the threads: on a busy machine finished workers would pile up.
inline constexpr int kLocalTcpWorkers = 2 * kLocalTcpSlots;

// Opens `port` of `proto` ("udp" or "tcp") at the head of the INPUT chain:
// deletes an earlier copy of the rule, then inserts it. Runs iptables with
// an argument vector (no shell).
void open_firewall_port(const char *proto, unsigned port);

// True when a datagram on the manage platform's local port comes from the
// manage platform: its address is the record's server address (`curip`) or
// heartbeat address. Others are dropped, with a log line now and then.
bool from_manage_platform(const sockaddr_in &from);

// The local TCP service's state, copied under its lock (for the host's
// diagnostics and the tests). A free slot holds socket -1.
struct LocalTcpState {
    pthread_t service;  // localtcptid: 0 when no service runs
    int listen_fd;      // locallisten: -1 when none
    int connections;    // localconnum
    int sockets[kLocalTcpSlots];
    pthread_t threads[kLocalTcpSlots];
};
LocalTcpState local_tcp_state();

// Connection table of the local TCP service (tcp_slots.cpp).
// Records `sock` in the lowest free slot and starts its worker, first
// evicting slot 0 when all five are taken. Returns 0 when a worker took the
// socket (the worker owns and closes it), -1 when not (the caller closes it).
int admit_local_connection(int sock, int plattype);
// A worker's last step: frees the slot that still holds `sock`, if any (an
// evicted worker's slot was freed by the eviction).
void release_local_connection(int sock);
// True while kLocalTcpWorkers worker threads are alive: the service then
// waits before it accepts (the client waits in the listen queue).
bool local_workers_at_cap();
// Fills the table part of `state`.
void copy_local_slots(LocalTcpState &state);

}  // namespace qdq

// Thread body of the local UDP service: plattype 2 (the manage platform's
// localport) or 5 (18401). Returns 0 for any other plattype, -1 when the
// socket cannot be made or bound; otherwise runs until cancelled.
int StartProcessUdpRequest(int *plattype);

// Thread body of the local TCP service (plattype 4 only; else -1 at once).
// Stops an earlier instance first. Returns -1 when it cannot start;
// otherwise runs until StopProcessTcpRequest or a later start.
int StartProcessTcpRequest(int *plattype);

// Worker body of one local TCP connection. `arg` is a malloc'ed "%d#%d"
// text (plattype, socket) that the worker frees; the worker owns the socket.
int ProcessClientTcpRequest(char *arg);

// Thread body of the quick-install service on UDP 7998. Returns -1 when the
// socket cannot be made or bound; otherwise never returns.
int StartProcessPrivateUdpRequest(void);

// One quick-install request as received (a NUL-terminated datagram): decoded,
// handed to the host's callback, and the callback's reply sent to `to` on
// `sock`. A datagram that does not decode, or an empty reply, gets no answer.
namespace qdq {
void answer_quick_request(const char *datagram, int sock, const sockaddr *to, socklen_t tolen);
}

// Base64-encodes `reply` and sends it to `to`. Frees `request` (the decoded
// request) whenever it is not null. 0 when a reply was sent, else -1.
int QuickSend(char *request, const char *reply, const struct sockaddr *to, int sock,
              socklen_t tolen);
