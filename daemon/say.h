// The daemon's own output: one time-stamped line per event on standard
// output (unless quiet) and the same line in its log file.
#pragma once

#include <utility>

#include "common/guard.h"

namespace qdd {

// Log file of the daemon, beside the library's logs (root applied by
// AppMgrLogLine).
inline constexpr const char *kDaemonLog = "/var/qdquickd.log";

void set_quiet(bool quiet);

// An event worth a person's attention: stdout and the log.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
// A failure an operator must see even with -q: standard error and the log.
void warn(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Detail for the log only.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Runs a callback's work on a library thread: an exception must not travel
// back into the library, so it is noted as `what` and `fallback` returned.
template <typename R, typename F>
R guarded(const char *what, R fallback, F &&work) {
    return qdq::guard_with([](const char *name, const char *error) { note("%s: %s", name, error); }, what,
                           fallback, std::forward<F>(work));
}

template <typename F>
void guarded(const char *what, F &&work) {
    guarded(what, false, [&] {
        std::forward<F>(work)();
        return true;
    });
}

}  // namespace qdd
