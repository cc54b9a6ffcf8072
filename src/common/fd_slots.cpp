#include "common/fd_slots.h"

#include <sys/stat.h>
#include <fcntl.h>

#include "common/mutex.h"
#include "common/udp_listeners.h"

namespace qdq {

namespace {

// Under the lock, so that a slot's number is not closed meanwhile.
bool same_socket(int a, int b) QDQ_REQUIRES(descriptor_mutex) {
    struct stat sa, sb;
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

void close_descriptor(int fd, bool shut_down) {
    if (fd < 0) return;
    MutexLock lock(descriptor_mutex);
    close_locked(fd, shut_down);
}

void close_slot(int *slot, bool shut_down) {
    MutexLock lock(descriptor_mutex);
    const int fd = __atomic_exchange_n(slot, -1, __ATOMIC_ACQ_REL);
    if (fd > 0) close_locked(fd, shut_down);
}

void release_slot(int *slot, bool shut_down) {
    MutexLock lock(descriptor_mutex);
    const int fd = __atomic_exchange_n(slot, -1, __ATOMIC_ACQ_REL);
    if (fd > 0 && !is_listener(fd)) close_locked(fd, shut_down);
}

bool install_slot(int *slot, int fd) {
    MutexLock lock(descriptor_mutex);
    if (__atomic_load_n(slot, __ATOMIC_ACQUIRE) > 0) return false;
    __atomic_store_n(slot, fd, __ATOMIC_RELEASE);
    return true;
}

bool close_slot_if_same(int *slot, int fd) {
    MutexLock lock(descriptor_mutex);
    const int held = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (held <= 0 || !same_socket(held, fd)) return false;
    __atomic_store_n(slot, -1, __ATOMIC_RELEASE);
    close_locked(held, false);
    return true;
}

int duplicate_slot(const int *slot) {
    MutexLock lock(descriptor_mutex);
    const int fd = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    return fd > 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
}

}  // namespace qdq
