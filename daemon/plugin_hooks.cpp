// The daemon's plugin work behind the library's plugin facade: registered
// with HgSetPluginHooks, so that an accepted "Install" starts the download
// and install, "Run"/"Stop" act on installed plugins, and the list and the
// status reports reflect what the daemon knows. No exception reaches the
// library.
#include "plugins.h"
#include "qdquick/qdquick.h"
#include "say.h"

namespace qdd {
namespace {

int on_install(int os, const char *name, const char *version, const char *url, int, const char *upgradeid) {
    return guarded("install", -3, [&] { return plugin_install(os, name, version, url, upgradeid); });
}

int on_run(const char *name, const char *version) {
    return guarded("run", -1, [&] { return plugin_run(name, version); });
}

int on_stop(const char *name, const char *version) {
    return guarded("stop", -1, [&] { return plugin_stop(name, version); });
}

void on_status(const char *name, const char *version, const char *status, const char *upgradeid) {
    guarded("plugin status", [&] { plugin_status(name, version, status, upgradeid); });
}

void on_list(cJSON *list) {
    guarded("plugin list", [&] { plugins_add_to_list(list); });
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
