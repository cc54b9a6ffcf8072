#include "common/thread.h"

namespace qdq {

std::size_t thread_stack_size() {
#if defined(__SANITIZE_ADDRESS__)
    return 1024 * 1024;
#else
    return 256 * 1024;
#endif
}

int start_thread(pthread_t *tid, void *(*fn)(void *), void *arg, bool detached) {
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) return rc;
    pthread_attr_setstacksize(&attr, thread_stack_size());
    if (detached) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t local;
    rc = pthread_create(tid ? tid : &local, &attr, fn, arg);
    pthread_attr_destroy(&attr);
    return rc;
}

}  // namespace qdq
