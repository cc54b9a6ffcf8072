// C plugins the daemon installed, ran or stopped on the platform's orders.
// The library answers "Install", "Run" and "Stop" at once and leaves the
// work to its host; these functions are that work.
#pragma once

#include <cjson/cJSON.h>

namespace qdd {

void plugins_configure(bool run_after_install);

// An accepted "Install": checks the texts, starts the download-and-install
// thread. 0 when started, -3 when refused (the library pushes the failure).
int plugin_install(int os, const char *name, const char *version, const char *url,
                   const char *upgradeid);
// The library reports an install status ("Installing", "Installed",
// "Active", "install_failed", "X_BROADCOM_COM_DnldFailed").
void plugin_status(const char *name, const char *version, const char *status, const char *upgradeid);
int plugin_run(const char *name, const char *version);
int plugin_stop(const char *name, const char *version);

// One object per known plugin: "Plugin_Name", "Version", "Status".
void plugins_add_to_list(cJSON *list);

// Registers the functions above as the library's plugin hooks.
void plugin_hooks_register();
cJSON *plugins_to_json();

// Start: lists the plugins installed under /qdconf/CPlugin/, starts again
// those that ran at the last stop (confined as their descriptor says) and
// ends an install that the stop cut off in "install_failed".
void plugins_restore();

// Shutdown: stops every plugin this daemon started, children included,
// remembering which ran.
void plugins_stop_all();

}  // namespace qdd
