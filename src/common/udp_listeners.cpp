#include "common/udp_listeners.h"

#include <sys/socket.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace qdq {

namespace {

struct Listener {
    int fd = -1;
    unsigned port = 0;
};

// The manage service and the 18401 service; room for a few more.
constexpr int kListeners = 8;

std::mutex g_mutex;  // a leaf lock: nothing else is taken or logged under it
Listener g_listeners[kListeners];

}  // namespace

void listener_opened(int fd, unsigned port) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (auto &l : g_listeners) {
        if (l.fd < 0 || l.fd == fd) {
            l = Listener{fd, port};
            return;
        }
    }
    // Table full: that service's port simply gets no send-through.
}

namespace {

// Needs g_mutex.
void close_locked(int fd, bool shut_down) {
    for (auto &l : g_listeners)
        if (l.fd == fd) l = Listener{};
    if (shut_down) shutdown(fd, SHUT_RDWR);
    close(fd);
}

}  // namespace

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
