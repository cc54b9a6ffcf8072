// The daemon's own output: one time-stamped line per event on standard
// output (unless quiet) and the same line in its log file.
#pragma once

namespace qdd {

// Log file of the daemon, beside the library's logs (root applied by
// AppMgrLogLine).
inline constexpr const char *kDaemonLog = "/var/qdquickd.log";

void set_quiet(bool quiet);

// An event worth a person's attention: stdout and the log.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Detail for the log only.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qdd
