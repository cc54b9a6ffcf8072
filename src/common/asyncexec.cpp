// Delayed shell commands on a thread of their own, with wireless-service
// reloads coalesced: of a burst of "/etc/init.d/wlan" requests arriving while
// one waits out its delay, only the first runs, and only if the wireless
// switch is on.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/clock.h"
#include "common/log.h"
#include "common/thread.h"
#include "qdquick/qdplatform.h"

namespace {

constexpr std::size_t kCommandSize = 256;  // at most 255 characters run
constexpr int kTakeWaitSeconds = 3;

// Wireless reload requests seen while one is pending; 0 = none pending.
// Coalescing is best-effort by design, but the counter itself is atomic.
std::atomic<int> g_wlan_reloads{0};

// The request is shared by the caller and the worker and freed by whichever
// lets go last: the caller gives up after about three seconds, possibly
// before a slow worker has even started, so it must not live on the caller's
// stack.
struct AsyncRequest {
    char command[kCommandSize] = {};
    signed char delay = 0;  // 8 bits: 200 reads as negative, meaning no wait
    std::atomic<bool> started{false};
    std::atomic<int> refs{2};  // the caller and the worker
};

void release(AsyncRequest *request) {
    if (request->refs.fetch_sub(1) == 1) delete request;
}

// Drops the caller's reference on every exit, a cancellation of the caller
// during its wait included (the unwind runs this destructor).
class CallerRef {
public:
    explicit CallerRef(AsyncRequest *request) : request_(request) {}
    ~CallerRef() { release(request_); }
    CallerRef(const CallerRef &) = delete;
    CallerRef &operator=(const CallerRef &) = delete;

private:
    AsyncRequest *request_;
};

bool is_wlan_reload(const char *command) { return std::strstr(command, "/etc/init.d/wlan") != nullptr; }

void *proc_async_system(void *arg) {
    auto *request = static_cast<AsyncRequest *>(arg);
    char command[kCommandSize];
    std::memcpy(command, request->command, sizeof command);

    if (is_wlan_reload(command)) {
        int before = g_wlan_reloads.fetch_add(1);
        if (before != 0) {
            // A reload is already pending: leave without taking the request,
            // so the caller sees 0 after its full wait.
            QDQ_LOG("wlan reload %d", before + 1);
            release(request);
            return nullptr;
        }
        QDQ_LOG("wlan reload action");
    }

    int delay = request->delay;
    request->started.store(true);
    release(request);

    if (delay > 0) qdq::sleep_for(delay);

    // Any command finishing while a reload is pending settles it, whatever
    // the command itself is.
    if (g_wlan_reloads.load() != 0) {
        char value[QDP_CFGVALUE_SIZE] = {};
        getUciOptionValue("system", "switch", "wlan", value);
        value[sizeof value - 1] = '\0';
        g_wlan_reloads.store(0);
        if (std::atoi(value) == 0) return nullptr;  // wireless switched off
    }
    safeSystem(command);
    return nullptr;
}

}  // namespace

extern "C" QDQ_API int asyncSystem(const char *command, int delay) {
    if (command == nullptr) return 0;
    auto *request = new (std::nothrow) AsyncRequest;
    if (request == nullptr) return 0;
    std::size_t len = strnlen(command, kCommandSize - 1);
    std::memcpy(request->command, command, len);
    request->command[len] = '\0';
    request->delay = static_cast<signed char>(delay);

    if (qdq::start_worker(qdq::Work::command, proc_async_system, request) != 0) {
        delete request;  // no worker: the caller's is the only reference
        return 0;
    }
    CallerRef caller(request);
    for (int i = 0; i < kTakeWaitSeconds; ++i) {
        if (request->started.load()) break;
        qdq::sleep_for(1);
    }
    return request->started.load() ? 1 : 0;
}
