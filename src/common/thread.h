// The one way the library starts threads: detached or joinable, always with
// an explicit stack size. A router has little memory; glibc's default of
// 8 MiB virtual per thread is far more than any thread here needs. The
// deepest paths (cJSON parsing and printing, getaddrinfo, formatted logging)
// stay well under 64 KiB; 256 KiB leaves room for nested JSON up to cJSON's
// nesting limit. Sanitizer builds get four times as much.
#pragma once

#include <pthread.h>

#include <cstddef>

namespace qdq {

std::size_t thread_stack_size();

// Starts fn(arg) on a new thread with the library's stack size. With
// `detached` the thread is created detached. Returns 0 or an errno value.
int start_thread(pthread_t *tid, void *(*fn)(void *), void *arg, bool detached);

// Disables cancellation for its scope, so that a lock or descriptor taken
// inside can never be abandoned by a cancellation.
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

}  // namespace qdq
