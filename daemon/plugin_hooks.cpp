// The daemon's plugin work behind the library's plugin facade: registered
// with HgSetPluginHooks, so that an accepted "Install" starts the download
// and install, "Run"/"Stop" act on installed plugins, and the list and the
// status reports reflect what the daemon knows. No exception reaches the
// library.
#include <exception>

#include "plugins.h"
#include "qdquick/qdquick.h"
#include "say.h"

namespace qdd {
namespace {

int on_install(int os, const char *name, const char *version, const char *url, int, const char *upgradeid) {
    try {
        return plugin_install(os, name, version, url, upgradeid);
    } catch (const std::exception &e) {
        note("install: %s", e.what());
        return -3;
    }
}

int on_run(const char *name, const char *version) {
    try {
        return plugin_run(name, version);
    } catch (const std::exception &e) {
        note("run: %s", e.what());
        return -1;
    }
}

int on_stop(const char *name, const char *version) {
    try {
        return plugin_stop(name, version);
    } catch (const std::exception &e) {
        note("stop: %s", e.what());
        return -1;
    }
}

void on_status(const char *name, const char *version, const char *status, const char *upgradeid) {
    try {
        plugin_status(name, version, status, upgradeid);
    } catch (const std::exception &e) {
        note("plugin status: %s", e.what());
    }
}

void on_list(cJSON *list) {
    try {
        plugins_add_to_list(list);
    } catch (const std::exception &e) {
        note("plugin list: %s", e.what());
    }
}

}  // namespace

void plugin_hooks_register() {
    qdqpluginhooks_t hooks{};
    hooks.install = on_install;
    hooks.run = on_run;
    hooks.stop = on_stop;
    hooks.status = on_status;
    hooks.list = on_list;
    HgSetPluginHooks(&hooks);
}

}  // namespace qdd
