// The library's mutex and its scoped lock. The lock turns cancellation off
// before it takes the mutex and back on only after releasing it, so a
// cancelled holder can never leave the mutex locked.
#pragma once

#include <pthread.h>

#include <type_traits>

#include "common/cancel.h"
#include "common/thread_safety.h"

namespace qdq {

// A pthread mutex the thread-safety analysis can name (clang cannot attach a
// capability to pthread_mutex_t itself); same size and layout underneath.
class QDQ_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() = default;
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    void lock() QDQ_ACQUIRE() { pthread_mutex_lock(&m_); }
    void unlock() QDQ_RELEASE() { pthread_mutex_unlock(&m_); }
    // For a caller that must reach the mutex itself (a try-lock in a test).
    pthread_mutex_t *native() { return &m_; }

private:
    // Statically initialised: never re-initialised while another thread
    // may hold it.
    pthread_mutex_t m_ = PTHREAD_MUTEX_INITIALIZER;
};
static_assert(sizeof(Mutex) == sizeof(pthread_mutex_t) && std::is_standard_layout<Mutex>::value,
              "Mutex must keep the layout of pthread_mutex_t");

// Holds `m` for its scope with cancellation off.
class QDQ_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex &m) QDQ_ACQUIRE(m) : mutex_(m) { mutex_.lock(); }
    ~MutexLock() QDQ_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    NoCancel no_cancel_;  // declared first: off before the lock, restored after it
    Mutex &mutex_;
};

}  // namespace qdq
