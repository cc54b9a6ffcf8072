#include "common/clock.h"

#include <time.h>

#include <cerrno>
#include <cstdlib>

namespace qdq {

double time_scale() {
    static const double value = [] {
        const char *env = std::getenv("QDQUICK_TIME_SCALE");
        if (env == nullptr || *env == '\0') return 1.0;
        char *end = nullptr;
        double v = std::strtod(env, &end);
        if (end == env || *end != '\0' || !(v > 0.0) || v > 1000.0) return 1.0;
        return v;
    }();
    return value;
}

std::chrono::nanoseconds scaled(double seconds) {
    if (!(seconds > 0.0)) return std::chrono::nanoseconds(0);
    return std::chrono::nanoseconds(static_cast<long long>(seconds * time_scale() * 1e9));
}

void sleep_for(double seconds) {
    auto ns = scaled(seconds).count();
    if (ns <= 0) return;
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / 1000000000LL);
    ts.tv_nsec = static_cast<long>(ns % 1000000000LL);
    // nanosleep is a cancellation point; resume after signals.
    while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
    }
}

struct timeval timeval_for(double seconds) {
    struct timeval tv{0, 0};
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(scaled(seconds)).count();
    if (seconds > 0.0 && us < 1000) us = 1000;
    tv.tv_sec = static_cast<time_t>(us / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
    return tv;
}

}  // namespace qdq
