// Started plugins, tracked by process: every plugin program runs as the
// leader of a process group of its own, and everything here acts on those
// groups, never on a process found by name.
#pragma once

#include <sys/types.h>

#include <string>

namespace qdq::plugin {

// Remembers the process group that `leader` leads, under the plugin's short
// name. `limiter`: a CPU limiter watching the plugin, stopped with it but
// never reported as the plugin.
void track(const std::string &shortname, pid_t leader, bool limiter = false);

// Takes over a plugin program that an earlier run of the host started and
// left running (the host was killed): only a live process that leads its
// own group and whose working directory is the plugin's MyPlugin folder.
bool adopt(const std::string &shortname, pid_t pid);

// The pid of the plugin's own running program (the first of its tracked
// leaders that still runs), or 0.
pid_t running_pid(const std::string &shortname);

// Stops every tracked group of the plugin: SIGTERM (and SIGCONT, in case a
// limiter holds it stopped) to the whole group, a grace period on the
// scaled clock, then SIGKILL. Returns the number of groups signalled.
int stop_tracked(const std::string &shortname);

// Stops every tracked group of every plugin; returns how many.
int stop_all_tracked();

}  // namespace qdq::plugin
