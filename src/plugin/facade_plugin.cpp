// The runtime-neutral plugin entry points behind the platform's plugin
// commands. Install, removal and control of a plugin by command answer
// success without acting unless the host registered hooks for them
// (HgSetPluginHooks); C plugins are installed by the host through
// HgDownLoadCpluginAndProcess.
#include <cjson/cJSON.h>

#include "common/log.h"
#include "plugin/download.h"
#include "plugin/plugin_hooks.h"

extern "C" {

QDQ_API int HgInstallPlugin(int os, const char *name, const char *version, const char *url, int size,
                            const char *upgradeid) {
    // Kept for the install the host starts: its limits and progress use it.
    qdq::plugin::remember_plugin_size(name, url, size);
    qdqpluginhooks_t hooks = qdq::plugin_hooks();
    return hooks.install != nullptr ? hooks.install(os, name, version, url, size, upgradeid) : 0;
}

QDQ_API int HgUnInstallPlugin(const char *name, const char *version) {
    qdqpluginhooks_t hooks = qdq::plugin_hooks();
    return hooks.uninstall != nullptr ? hooks.uninstall(name, version) : 0;
}

QDQ_API int HgQueryPluginInstallProgress(const char *, const char *) { return 0; }
QDQ_API int HgPluginInstallCancel(const char *, const char *) { return 0; }
QDQ_API int HgPluginRun(const char *name, const char *version) {
    qdqpluginhooks_t hooks = qdq::plugin_hooks();
    return hooks.run != nullptr ? hooks.run(name, version) : 0;
}

QDQ_API int HgPluginStop(const char *name, const char *version) {
    qdqpluginhooks_t hooks = qdq::plugin_hooks();
    return hooks.stop != nullptr ? hooks.stop(name, version) : 0;
}

QDQ_API int HgFactoryPlugin(const char *, const char *) { return 0; }
QDQ_API int HgSetPluginParameterValues(const char *, const char *, const char *) { return 0; }
QDQ_API void HGCleanPreInstallPlugin(void) {}

// Adds "Plugin": the OSGi and C plugin lists, both empty here.
QDQ_API int HgListPlugin(struct cJSON *object) {
    if (object == nullptr) return -1;
    cJSON *list = cJSON_CreateArray();
    if (list == nullptr) return -1;
    HgGetOsgiPlugin(list);
    HgGetCPlugin(list);
    if (!cJSON_AddItemToObject(object, "Plugin", list)) {
        cJSON_Delete(list);
        return -1;
    }
    return 0;
}

}  // extern "C"
