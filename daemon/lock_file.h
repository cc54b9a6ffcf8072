// One daemon per root: an exclusive flock on a file below the root, held
// until the process ends (the kernel drops it even after SIGKILL).
#pragma once

#include <string>

namespace qdd {

inline constexpr const char *kLockFile = "/var/qdquickd/qdquickd.lock";

// Takes the lock (root applied) and writes this pid into the file. False
// with `error` set when another daemon holds it (naming its pid) or the
// file cannot be opened.
bool take_lock(std::string &error);

}  // namespace qdd
