// The library's plugin facade answers "Install", "Run", "Stop", the status
// reports and the C plugin list with fixed results and leaves the work to
// its host. The daemon provides these entry points itself: a definition in
// the executable takes precedence over the library's for every call the
// library makes through its exported names (ELF symbol interposition).
// docs/daemon.md describes the explicit hook a vendor daemon may prefer.
#include <exception>

#include "plugins.h"
#include "qdquick/qdquick.h"
#include "say.h"

extern "C" {

QDQ_API int HgInstallPlugin(int os, const char *name, const char *version, const char *url, int,
                            const char *upgradeid) {
    try {
        return qdd::plugin_install(os, name, version, url, upgradeid);
    } catch (const std::exception &e) {
        qdd::note("install: %s", e.what());
        return -3;
    }
}

QDQ_API int HgPluginRun(const char *name, const char *version) {
    try {
        return qdd::plugin_run(name, version);
    } catch (const std::exception &e) {
        qdd::note("run: %s", e.what());
        return -1;
    }
}

QDQ_API int HgPluginStop(const char *name, const char *version) {
    try {
        return qdd::plugin_stop(name, version);
    } catch (const std::exception &e) {
        qdd::note("stop: %s", e.what());
        return -1;
    }
}

QDQ_API int HgSetCpluginStatus(const char *name, const char *version, const char *status,
                               const char *upgradeid) {
    try {
        qdd::plugin_status(name, version, status, upgradeid);
    } catch (const std::exception &e) {
        qdd::note("plugin status: %s", e.what());
    }
    return 0;
}

QDQ_API int HgGetCPlugin(cJSON *list) {
    try {
        if (list != nullptr) qdd::plugins_add_to_list(list);
    } catch (const std::exception &e) {
        qdd::note("plugin list: %s", e.what());
    }
    return 0;
}

}  // extern "C"
