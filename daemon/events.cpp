#include "events.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>

namespace qdd {

namespace {
std::mutex g_mutex;
std::vector<Event> g_queue;
int g_fd = -1;
}  // namespace

bool events_init() {
    g_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return g_fd >= 0;
}

int events_fd() { return g_fd; }

void post_event(Event event) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_queue.push_back(std::move(event));
    }
    const std::uint64_t one = 1;
    // A full counter still leaves the descriptor readable: nothing is lost.
    ssize_t ignored = write(g_fd, &one, sizeof one);
    (void)ignored;
}

std::vector<Event> take_events() {
    std::uint64_t count;
    ssize_t ignored = read(g_fd, &count, sizeof count);
    (void)ignored;
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<Event> out;
    out.swap(g_queue);
    return out;
}

}  // namespace qdd
