// Internal interface of the platform subsystem (module hgprocessplatintf):
// transport and session functions that the library uses but does not export.
#pragma once

#include "qdquick/qdquick.h"

namespace qdq {
// Module name at the head of trace-log lines ("%s line %d ...").
inline constexpr const char *kPlatModule = "hgprocessplatintf";
}  // namespace qdq

// ---- TCP message framing -------------------------------------------------
// A frame is the payload length as 4 bytes, big-endian, then the payload
// (the message text without its NUL).

// Frames `msg` into `out`, which must hold strlen(msg) + 4 bytes (not
// checked). No NUL is written after the payload. Returns the bytes written,
// or -1 when `msg` or `out` is null.
int HgProcessSendTcpMsg(const char *msg, unsigned char *out);

// Frames `msg` and sends it with one send call (5 s send time-out, left on
// the socket). Returns what send returned - a short count is not completed -
// or -1 when `msg` is null.
int HgTcpSend(int sock, const char *msg);

// Reads one frame of at most 102400 payload bytes.
// - > 0: the payload length; *out holds a malloc'ed, NUL-terminated copy.
// - 0: no message: peer closed or error before a header, a length above
//   102400 or negative (its payload stays unread, the stream is out of step),
//   or no memory. Nothing is stored through `out`.
// - -1: the payload could not be read in full (including a zero length).
//   *out STILL holds the partly filled buffer; the caller frees it.
// The caller frees *out with free() whenever it was stored.
int HgTcpRcv(int sock, char **out);

// ---- UDP request client --------------------------------------------------
// One datagram to ip:port from a socket bound to `localport` (0 = not
// bound), then, when `timeout` (seconds) is not 0, one reply datagram into
// `reply`, which is zero-filled first and must hold 512 bytes (102400 for
// _big); a reply of the full size has no NUL. Returns 0 (_big: the reply's
// byte count; 0 when only sending) or -1.
int HGSendUdpRequest(unsigned localport, const char *ip, unsigned port, const char *msg,
                     char *reply, unsigned timeout);
int HGSendUdpRequest_v6(unsigned localport, const char *ip6, unsigned port, const char *msg,
                        char *reply, unsigned timeout);
int HGSendUdpRequest_big(unsigned localport, const char *ip, unsigned port, const char *msg,
                         char *reply, unsigned timeout);

// Waits up to `timeout` seconds for a reply on `fd`, logging a failed or
// timed-out wait as the request clients do. True when a reply is there.
bool WaitPlatformReply(int fd, unsigned timeout);

// ---- TCP request client --------------------------------------------------
// Sends `msg` framed on the platform record's connection (`socketfd`,
// opened from `localport` to `curip`:`port` when it is -1), waits `timeout`
// seconds and receives once at most 512 bytes into `reply` (>= 512 bytes):
// the raw bytes, frame header included, so the text starts at reply + 4.
// Returns 0 when the receive succeeded (a closed peer included), else -1.
// The connection stays in the record after success. The record's number is
// only ever read, stored and closed under the descriptor lock (see
// common/fd_slots.h): the exchange runs on a duplicate, so a
// disconnect meanwhile can never make it write on a reused number. A new
// connection enters the record once connected; a failure closes it and
// takes it out of the record (-1), and a `socketfd` of 0 (a cleared
// record) counts as no connection, never as descriptor 0.
int HGSendTcpRequest(unsigned plattype, const char *msg, char *reply, unsigned timeout);
int HGSendTcpRequest_v6(unsigned plattype, const char *msg, char *reply, unsigned timeout);
// The same exchange on a connection of its own, closed afterwards; the
// record's `socketfd` is neither used nor changed.
int HGSendTcpRequestOnce(unsigned plattype, const char *msg, char *reply, unsigned timeout);
