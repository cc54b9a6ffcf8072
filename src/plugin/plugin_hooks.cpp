// HgSetPluginHooks: the host's plugin work behind the facade.
#include "plugin/plugin_hooks.h"

#include <mutex>

#include "common/cancel.h"

namespace {

// Read on every plugin command and written rarely: a copy under a small
// lock keeps the six pointers consistent with each other.
std::mutex g_mutex;
qdqpluginhooks_t g_hooks{};

}  // namespace

namespace qdq {

qdqpluginhooks_t plugin_hooks() {
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_hooks;
}

}  // namespace qdq

extern "C" QDQ_API int HgSetPluginHooks(const qdqpluginhooks_t *hooks) {
    qdq::NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_hooks = hooks != nullptr ? *hooks : qdqpluginhooks_t{};
    return 0;
}
