// Delayed shell commands on worker threads, with wireless-service reloads
// coalesced: of a burst of "/etc/init.d/wlan" requests arriving while one
// waits out its delay, only the first runs, and only if the wireless switch
// is on.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "common/clock.h"
#include "common/log.h"
#include "common/thread.h"
#include "qdquick/qdplatform.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kCommandSize = 256;  // at most 255 characters run
constexpr int kTakeWaitSeconds = 3;

// Wireless reload requests seen while one is pending; 0 = none pending.
// Coalescing is best-effort by design, but the counter itself is atomic.
std::atomic<int> g_wlan_reloads{0};

// One request, owned by the worker that runs it. The delay counts from the
// call: a request that waited in the command queue (every command worker
// busy) runs as soon as a worker takes it if its time has come.
struct AsyncRequest {
    char command[kCommandSize] = {};
    int delay = 0;
    Clock::time_point queued;
};

bool is_wlan_reload(const char *command) { return std::strstr(command, "/etc/init.d/wlan") != nullptr; }

void *proc_async_system(void *arg) {
    std::unique_ptr<AsyncRequest> request(static_cast<AsyncRequest *>(arg));
    if (request->delay > 0) {
        const double waited = std::chrono::duration<double>(Clock::now() - request->queued).count();
        const double left = request->delay - waited / qdq::time_scale();
        if (left > 0) qdq::sleep_for(left);
    }
    // Any command finishing while a reload is pending settles it, whatever
    // the command itself is.
    if (g_wlan_reloads.load() != 0) {
        char value[QDP_CFGVALUE_SIZE] = {};
        getUciOptionValue("system", "switch", "wlan", value);
        value[sizeof value - 1] = '\0';
        g_wlan_reloads.store(0);
        if (std::atoi(value) == 0) return nullptr;  // wireless switched off
    }
    safeSystem(request->command);
    return nullptr;
}

}  // namespace

// Every request is taken at once, onto a command worker or, with all of
// them busy (each may be waiting out a delay of up to 127 s), into the
// command queue behind them; a request is refused (0) only when that queue
// is full too. A repeated wireless reload is not taken, after the caller's
// full wait, as before.
extern "C" QDQ_API int asyncSystem(const char *command, int delay) {
    if (command == nullptr) return 0;
    std::unique_ptr<AsyncRequest> request(new (std::nothrow) AsyncRequest);
    if (!request) return 0;
    std::size_t len = strnlen(command, kCommandSize - 1);
    std::memcpy(request->command, command, len);
    request->command[len] = '\0';
    request->delay = static_cast<signed char>(delay);  // 8 bits: 200 reads as negative, meaning no wait
    request->queued = Clock::now();

    const bool wlan = is_wlan_reload(request->command);
    if (wlan) {
        int before = g_wlan_reloads.fetch_add(1);
        if (before != 0) {
            // A reload is already pending: not taken.
            QDQ_LOG("wlan reload %d", before + 1);
            qdq::sleep_for(kTakeWaitSeconds);
            return 0;
        }
        QDQ_LOG("wlan reload action");
    }
    if (qdq::submit_work(qdq::Work::command, proc_async_system, request.get()) != 0) {
        if (wlan) g_wlan_reloads.store(0);  // nothing is pending after all
        return 0;
    }
    request.release();
    return 1;
}
