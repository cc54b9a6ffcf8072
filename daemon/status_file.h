// The status file: one JSON document that outside tools (qdquick-cli
// status) read. Replaced whole by rename, so a reader never sees half of it.
#pragma once

#include <string>
#include <vector>

#include "local_ports.h"

namespace qdd {

// Fixed path (root applied).
inline constexpr const char *kStatusFile = "/var/qdquickd/status.json";

// Writes the first version: every platform as the records stand, the
// daemon's version, and the local services that could not start ("state"
// "degraded" when there are any).
void status_start(const char *version, const std::vector<PortProblem> &problems);
// A missing service ends the daemon: "state" "failed" with the problems.
void status_failed(const char *version, const std::vector<PortProblem> &problems);
// A platform's status changed (1 cube, 2 manage, 3 plugin).
void status_platform(int plattype, const std::string &status, int result);
// Rewrites the file (after a plugin change, for example).
void status_write();
// A SIGHUP's outcome: the dotted fields applied and those that need a
// restart, or the error that kept the new file out.
void status_reload(const std::vector<std::string> &applied, const std::vector<std::string> &restart,
                   const std::string &error);
// A session result code in words ("no address or transport failure", ...).
std::string result_words(int result);
// The daemon is stopping: "state" becomes "stopped".
void status_stopped();

}  // namespace qdd
