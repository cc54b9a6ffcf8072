#include "threads.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace qdd {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kStack = 1024 * 1024;
#else
constexpr std::size_t kStack = 256 * 1024;
#endif

std::mutex g_mutex;
std::condition_variable g_done;
int g_running = 0;

struct Counted {
    void *(*fn)(void *);
    void *arg;
};

// Decrements on return and on cancellation (unwinding runs destructors).
struct RunningGuard {
    ~RunningGuard() {
        std::lock_guard<std::mutex> lock(g_mutex);
        --g_running;
        g_done.notify_all();
    }
};

void *counted_body(void *p) {
    std::unique_ptr<Counted> c(static_cast<Counted *>(p));
    RunningGuard guard;
    return c->fn(c->arg);
}

}  // namespace

int start_detached(void *(*fn)(void *), void *arg) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kStack);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    const int rc = pthread_create(&tid, &attr, fn, arg);
    pthread_attr_destroy(&attr);
    return rc;
}

int start_session_thread(void *(*fn)(void *), void *arg) {
    auto *c = new Counted{fn, arg};
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        ++g_running;
    }
    const int rc = start_detached(counted_body, c);
    if (rc != 0) {
        delete c;
        std::lock_guard<std::mutex> lock(g_mutex);
        --g_running;
    }
    return rc;
}

bool wait_session_threads(double seconds) {
    std::unique_lock<std::mutex> lock(g_mutex);
    return g_done.wait_for(lock, std::chrono::duration<double>(seconds), [] { return g_running == 0; });
}

}  // namespace qdd
