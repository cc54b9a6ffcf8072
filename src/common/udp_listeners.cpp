#include "common/udp_listeners.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace qdq {

Mutex descriptor_mutex;

namespace {

struct Listener {
    int fd = -1;
    unsigned port = 0;
    unsigned long id = 0;
};

// The manage service and the 18401 service; room for a few more.
constexpr int kListeners = 8;

Listener g_listeners[kListeners] QDQ_GUARDED_BY(descriptor_mutex);
unsigned long g_last_id QDQ_GUARDED_BY(descriptor_mutex) = 0;

Listener *listener_of(int fd) QDQ_REQUIRES(descriptor_mutex) {
    for (auto &l : g_listeners)
        if (l.fd >= 0 && l.fd == fd) return &l;
    return nullptr;
}

}  // namespace

bool is_listener(int fd) { return listener_of(fd) != nullptr; }

void close_locked(int fd, bool shut_down) {
    if (Listener *l = listener_of(fd)) {
        *l = Listener{};
        shut_down = true;
    }
    if (shut_down) shutdown(fd, SHUT_RDWR);
    close(fd);
}

unsigned long listener_opened(int fd, unsigned port) {
    MutexLock lock(descriptor_mutex);
    for (auto &l : g_listeners) {
        if (l.fd < 0 || l.fd == fd) {
            l = Listener{fd, port, ++g_last_id};
            return l.id;
        }
    }
    return 0;  // table full: that service's port simply gets no send-through
}

bool listener_alive(unsigned long id) {
    MutexLock lock(descriptor_mutex);
    for (const auto &l : g_listeners)
        if (l.fd >= 0 && l.id == id) return true;
    return false;
}

bool close_listener(unsigned long id, int *slot) {
    MutexLock lock(descriptor_mutex);
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

ssize_t send_from_listener(unsigned port, const void *data, std::size_t len, const struct sockaddr *to,
                           socklen_t tolen) {
    MutexLock lock(descriptor_mutex);
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
