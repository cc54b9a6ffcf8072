#include "common/udp_listeners.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace qdq {

namespace {

struct Listener {
    int fd = -1;
    unsigned port = 0;
    unsigned long id = 0;
};

// The manage service and the 18401 service; room for a few more.
constexpr int kListeners = 8;

std::mutex g_mutex;  // a leaf lock: nothing else is taken or logged under it
Listener g_listeners[kListeners];
unsigned long g_last_id = 0;

// Needs g_mutex.
Listener *listener_of(int fd) {
    for (auto &l : g_listeners)
        if (l.fd >= 0 && l.fd == fd) return &l;
    return nullptr;
}

// Needs g_mutex. A listener is always shut down: its service waits on the
// number and must wake to see that it is gone.
void close_locked(int fd, bool shut_down) {
    if (Listener *l = listener_of(fd)) {
        *l = Listener{};
        shut_down = true;
    }
    if (shut_down) shutdown(fd, SHUT_RDWR);
    close(fd);
}

// Under g_mutex, so that a slot's number is not closed meanwhile.
bool same_socket(int a, int b) {
    struct stat sa, sb;
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

unsigned long listener_opened(int fd, unsigned port) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (auto &l : g_listeners) {
        if (l.fd < 0 || l.fd == fd) {
            l = Listener{fd, port, ++g_last_id};
            return l.id;
        }
    }
    return 0;  // table full: that service's port simply gets no send-through
}

bool listener_alive(unsigned long id) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto &l : g_listeners)
        if (l.fd >= 0 && l.id == id) return true;
    return false;
}

bool close_listener(unsigned long id, int *slot) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto &l : g_listeners) {
        if (l.fd >= 0 && l.id == id) {
            const int fd = l.fd;
            if (slot != nullptr) {
                int expected = fd;
                __atomic_compare_exchange_n(slot, &expected, -1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
            }
            close_locked(fd, true);
            return true;
        }
    }
    return false;
}

void close_descriptor(int fd, bool shut_down) {
    if (fd < 0) return;
    std::lock_guard<std::mutex> lock(g_mutex);
    close_locked(fd, shut_down);
}

void close_slot(int *slot, bool shut_down) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const int fd = __atomic_exchange_n(slot, -1, __ATOMIC_ACQ_REL);
    if (fd > 0) close_locked(fd, shut_down);
}

void release_slot(int *slot, bool shut_down) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const int fd = __atomic_exchange_n(slot, -1, __ATOMIC_ACQ_REL);
    if (fd > 0 && listener_of(fd) == nullptr) close_locked(fd, shut_down);
}

bool install_slot(int *slot, int fd) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (__atomic_load_n(slot, __ATOMIC_ACQUIRE) > 0) return false;
    __atomic_store_n(slot, fd, __ATOMIC_RELEASE);
    return true;
}

bool close_slot_if_same(int *slot, int fd) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const int held = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (held <= 0 || !same_socket(held, fd)) return false;
    __atomic_store_n(slot, -1, __ATOMIC_RELEASE);
    close_locked(held, false);
    return true;
}

int duplicate_slot(const int *slot) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const int fd = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    return fd > 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
}

ssize_t send_from_listener(unsigned port, const void *data, std::size_t len, const struct sockaddr *to,
                           socklen_t tolen) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto &l : g_listeners) {
        if (l.fd >= 0 && l.port == port) {
            ssize_t sent;
            do {
                sent = sendto(l.fd, data, len, MSG_DONTWAIT, to, tolen);
            } while (sent < 0 && errno == EINTR);
            return sent;
        }
    }
    errno = ENOENT;
    return -1;
}

}  // namespace qdq
