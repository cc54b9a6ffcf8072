// Cancellation scopes. Threads that another thread may cancel (a channel
// loop, the local services, their workers) run with cancellation off and
// open it around one blocking call at a time, always deferred: a
// cancellation then lands only in that call, never while a lock, a
// descriptor or a half-made update is held. No thread here uses
// asynchronous cancellation.
#pragma once

#include <pthread.h>

namespace qdq {

// Disables cancellation for its scope, so that a lock or descriptor taken
// inside can never be abandoned by a cancellation. The previous state comes
// back at the end.
class NoCancel {
public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_); }
    ~NoCancel() {
        int ignored;
        pthread_setcancelstate(old_, &ignored);
    }
    NoCancel(const NoCancel &) = delete;
    NoCancel &operator=(const NoCancel &) = delete;

private:
    int old_ = PTHREAD_CANCEL_ENABLE;
};

// Deferred cancellation enabled for the scope of one blocking call (accept,
// poll, recv, a pause): the calling thread may be cancelled there and
// nowhere else. Sets the type itself, so a caller needs nothing but a
// NoCancel around its body. State and type come back at the end (under a
// NoCancel: off), the state first so that a caller's asynchronous type is
// never live with cancellation on in between.
class CancelWindow {
public:
    CancelWindow() {
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type_);
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state_);
    }
    ~CancelWindow() {
        int ignored;
        pthread_setcancelstate(state_, &ignored);
        pthread_setcanceltype(type_, &ignored);
    }
    CancelWindow(const CancelWindow &) = delete;
    CancelWindow &operator=(const CancelWindow &) = delete;

private:
    int state_ = PTHREAD_CANCEL_DISABLE;
    int type_ = PTHREAD_CANCEL_DEFERRED;
};

}  // namespace qdq
