// SIGHUP: the configuration file read again. What the running sessions
// pick up by themselves (addresses for the next connect, the retry wait,
// the log size, the run-after-install switch, refusing local TCP clients)
// is applied; everything else is reported as needing a restart.
#pragma once

#include <string>
#include <vector>

#include "config.h"

namespace qdd {

struct ReloadPlan {
    std::vector<std::string> applied;  // dotted field names
    std::vector<std::string> restart;
};

// The dotted names of the fields whose values differ between two
// configuration texts (present in one only counts as different).
std::vector<std::string> changed_fields(const std::string &old_text, const std::string &new_text);

// Sorts the changes from `running` to `fresh` and copies the live ones into
// `running` (its text becomes the new file's).
ReloadPlan plan_reload(Config &running, const Config &fresh);

}  // namespace qdd
