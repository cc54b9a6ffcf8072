// The local UDP services' listening sockets, by port.
//
// The manage platform's heartbeat goes out from the gateway's local port
// and its answer comes back to that port, where the local request service
// listens. A second socket bound to the same port just for the send would
// compete with the service for the answer (Linux hands a unicast datagram
// to one of the sockets sharing a port, often the newest), and the answer
// would be lost when the sender closes. A send-only request from a port
// that a service listens on leaves through the service's own socket
// instead, so the answer always reaches the service.
//
// A listening socket can be taken and closed by another thread (a platform
// disconnect closes the manage service's socket), so the registry's lock
// covers both the send and the close: a send never reaches a closed or
// reused descriptor number. Session sockets held in a platform record are
// closed and duplicated under the same lock for the same reason
// (common/fd_slots.h).
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

#include "common/mutex.h"
#include "common/thread_safety.h"

namespace qdq {

// Records `fd` as the socket listening on UDP `port`. Returns the record's
// id, which names this socket however its number is reused later, or 0
// when the table is full (the port then gets no send-through).
//
// A recorded socket belongs to the registry: whoever takes it out (its own
// service dropping it, or a platform disconnect closing the record that
// publishes it) closes it, after shutting it down so that the service's
// wait wakes up.
unsigned long listener_opened(int fd, unsigned port);

// True while the socket recorded as `id` is still recorded.
bool listener_alive(unsigned long id);

// Takes the socket recorded as `id` out and closes it, emptying `*slot`
// (-1) first when it publishes that socket. False, touching nothing, when
// it was no longer recorded (someone else closed it; its number is not
// ours, and may already name another descriptor).
bool close_listener(unsigned long id, int *slot = nullptr);

// Sends `len` bytes to `to` from the socket listening on `port`. Returns
// the bytes sent, or -1 with errno ENOENT when no socket listens there
// (or the errno of the send).
ssize_t send_from_listener(unsigned port, const void *data, std::size_t len, const struct sockaddr *to,
                           socklen_t tolen);

// The one lock of the listeners and the session slots: a leaf lock,
// nothing else is taken or logged under it.
extern Mutex descriptor_mutex;

// True when `fd` is a recorded listener.
bool is_listener(int fd) QDQ_REQUIRES(descriptor_mutex);

// Closes `fd`, with `shut_down` shutting it down first. A listener is
// forgotten first and always shut down: its service waits on the number
// and must wake to see that it is gone.
void close_locked(int fd, bool shut_down) QDQ_REQUIRES(descriptor_mutex);

}  // namespace qdq
