// A confined plugin's own user: made through the platform, given the
// plugin's data and scratch folders. Nothing here follows a link or touches
// a path outside the plugin's folders, /var and the scratch folder.
#pragma once

#include <sys/types.h>

#include <string>

namespace qdq::plugin {

struct OwnUser {
    uid_t uid = 0;
    gid_t gid = 0;
};

// Makes the user named after the plugin (short name `s`) and hands it
// Data and Temp, logging each step with the command the system describes
// for it. `mydir`: the open MyPlugin directory, or -1. False (logged) when
// the plugin cannot run as its own user.
bool prepare_own_user(const std::string &s, int mydir, OwnUser &out);

// "chmod +x *" in the open MyPlugin directory: its regular files and
// folders (hidden ones aside, as the glob would), never through a link.
void make_executable(int mydir);

}  // namespace qdq::plugin
