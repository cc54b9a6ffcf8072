// The status file: one JSON document that outside tools (qdquick-cli
// status) read. Replaced whole by rename, so a reader never sees half of it.
#pragma once

#include <string>

namespace qdd {

// Fixed path (root applied).
inline constexpr const char *kStatusFile = "/var/qdquickd/status.json";

// Writes the first version: every platform as the records stand.
void status_start();
// A platform's status changed (1 cube, 2 manage, 3 plugin).
void status_platform(int plattype, const std::string &status, int result);
// Rewrites the file (after a plugin change, for example).
void status_write();
// The daemon is stopping: "state" becomes "stopped".
void status_stopped();

}  // namespace qdd
