// What the daemon remembers of its plugins across a restart (a reboot, a
// respawn): for each bundle its version, whether it should run (and the pid
// it runs as), whether an install was under way, and the platform's upgrade
// id. Kept in
// <root>/qdconf/qdquickd/plugins.json (persistent, like the plugins
// themselves), replaced whole by a rename.
#pragma once

#include <map>
#include <string>

namespace qdd {

struct SavedPlugin {
    std::string version, upgradeid;
    bool running = false;     // started, and not stopped by an order
    bool installing = false;  // an install began and has not ended
    int pid = 0;              // its program, while it runs
};
using SavedPlugins = std::map<std::string, SavedPlugin>;  // by bundle name

bool save_plugins(const SavedPlugins &plugins);
// Empty when the file is missing or unreadable.
SavedPlugins load_plugins();

// Installed plugins on disk: bundle name -> version, from the descriptors
// <root>/qdconf/CPlugin/*/Info.plugin whose "Name" line names the bundle.
std::map<std::string, std::string> installed_plugins();

}  // namespace qdd
