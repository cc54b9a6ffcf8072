#include "say.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "qdquick/qdquick.h"

namespace qdd {

namespace {
bool g_quiet = false;
std::mutex g_out_mutex;

void vlog(bool to_stdout, const char *format, va_list args) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    AppMgrLogLine(kDaemonLog, "%s", text);
    if (!to_stdout || g_quiet) return;
    std::time_t now = std::time(nullptr);
    struct tm tm_now;
    localtime_r(&now, &tm_now);
    char stamp[16];
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &tm_now);
    std::lock_guard<std::mutex> lock(g_out_mutex);
    std::printf("%s qdquickd: %s\n", stamp, text);
    std::fflush(stdout);
}
}  // namespace

void set_quiet(bool quiet) { g_quiet = quiet; }

void say(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vlog(true, format, args);
    va_end(args);
}

void note(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vlog(false, format, args);
    va_end(args);
}

}  // namespace qdd
