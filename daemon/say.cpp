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

enum Where { kLogOnly, kStdout, kStderr };

void vlog(Where where, const char *format, va_list args) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    AppMgrLogLine(kDaemonLog, "%s", text);
    if (where == kStderr) {
        std::lock_guard<std::mutex> lock(g_out_mutex);
        std::fprintf(stderr, "qdquickd: %s\n", text);
        return;
    }
    if (where == kLogOnly || g_quiet) return;
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
    vlog(kStdout, format, args);
    va_end(args);
}

void warn(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vlog(kStderr, format, args);
    va_end(args);
}

void note(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vlog(kLogOnly, format, args);
    va_end(args);
}

}  // namespace qdd
