// The platform gives a package's size with its "Install" order, but the
// install record the host hands to HgDownLoadCpluginAndProcess has no field
// for it: the facade remembers it here for the install that follows.
#include <deque>
#include <mutex>
#include <string>

#include "common/cancel.h"
#include "plugin/download.h"

namespace qdq::plugin {

namespace {

struct Order {
    std::string name, url;
    long long size;
};

constexpr std::size_t kKept = 32;  // orders whose install has not started yet
std::mutex g_mutex;
std::deque<Order> g_orders;

}  // namespace

void remember_plugin_size(const char *name, const char *url, int size) {
    if (name == nullptr || url == nullptr || size <= 0) return;
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_orders.size() >= kKept) g_orders.pop_front();
    g_orders.push_back({name, url, size});
}

long long take_plugin_size(const char *name, const char *url) {
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(g_mutex);
    for (auto it = g_orders.rbegin(); it != g_orders.rend(); ++it) {
        if (it->name != name || it->url != url) continue;
        long long size = it->size;
        g_orders.erase(std::next(it).base());
        return size;
    }
    return 0;
}

}  // namespace qdq::plugin
