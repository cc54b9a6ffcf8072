// C plugin bookkeeping entry points. The plugin list and its persistence are
// the host's (through its hooks, HgSetPluginHooks): these answer success, and
// the status setter also leaves a trace in the general log.
#include <cstdlib>

#include "common/log.h"
#include "plugin/plugin_hooks.h"

extern "C" {

QDQ_API int IsCPluginExist(const char *, const char *) { return 0; }
QDQ_API int HgDelCplugin(const char *, const char *) { return 0; }

// Logged so that an install's status sequence can be followed.
QDQ_API int HgSetCpluginStatus(const char *name, const char *version, const char *status,
                               const char *upgradeid) {
    QDQ_LOG("HgSetCpluginStatus name:%s version:%s status:%s", name != nullptr ? name : "",
            version != nullptr ? version : "", status != nullptr ? status : "");
    qdqpluginhooks_t hooks = qdq::plugin_hooks();
    if (hooks.status != nullptr) hooks.status(name, version, status, upgradeid);
    return 0;
}

QDQ_API int HgAddCpluginToList(const cplugininstinfo *) { return 0; }
QDQ_API int HgCPluginInstall(const char *, const char *, const char *, const char *) { return 0; }
QDQ_API int HgCPluginUpdate(const char *, const char *, const char *, const char *) { return 0; }
QDQ_API int HgQureyCPluginInstallProgress(const char *, const char *) { return 0; }
QDQ_API int HgCPluginStart(const char *, const char *) { return 0; }
QDQ_API int HgCPluginStop(const char *, const char *) { return 0; }
QDQ_API int HgGetCPlugin(struct cJSON *list) {
    qdqpluginhooks_t hooks = qdq::plugin_hooks();
    if (hooks.list != nullptr && list != nullptr) hooks.list(list);
    return 0;
}
QDQ_API int HgFactoryCPlugin(const char *, const char *) { return 0; }
QDQ_API int HgRunActiveCplugin(void) { return 0; }
QDQ_API void HgInstallSysCPlugin(void) {}

// The parameter arrives Base64-encoded; it is decoded (and so checked) but
// no plugin takes parameters in this build.
QDQ_API int HgSetCPluginParameterValues(const char *, const char *, const char *parameter) {
    if (parameter != nullptr) std::free(base64_decode(parameter));
    return 0;
}

}  // extern "C"
