// Plugin commands answered straight from the plugin facade: uninstall,
// stop, run, install query and cancel, factory reset, parameters, list; and
// the "Post" pre-test.
#include <cstring>

#include "common/log.h"
#include "jsonmsg/cmd_json.h"
#include "jsonmsg/processjsonmsg.h"

namespace {

// Bundles the platform may neither stop nor uninstall.
constexpr const char *kProtectedBundles[] = {
    "com.brevanta.varnelo.smartgateway.dlna",
    "com.brevanta.varnelo.smartgateway.samba",
    "com.brevanta.varnelo.smartgateway.nas",
};

bool is_protected(const char *name) {
    for (const char *bundle : kProtectedBundles)
        if (std::strcmp(name, bundle) == 0) return true;
    return false;
}

using NameVersionCall = int (*)(const char *name, const char *version);

// Who may answer without a name: UnInstall and Stop act on one bundle (and
// guard the protected ones), so they need it; the others ask the facade.
enum class Target { named, any };

// The common shape: name and version in, the facade's answer out. A missing
// or non-text key reads as empty text; only UnInstall and Stop without a
// name are refused whole.
void name_version_command(cJSON *object, NameVersionCall call, Target target) {
    const char *name = qdq::cmd_text(object, "Plugin_Name");
    if (name == nullptr && target == Target::named) {
        QDQ_LOG("plugin command without Plugin_Name");
        qdq::cmd_refuse(object, qdq::kResultFailed);
        return;
    }
    if (name == nullptr) name = "";
    const char *version = qdq::cmd_text_or_empty(object, "Version");
    const int result = target == Target::named && is_protected(name) ? qdq::kResultProtected : call(name, version);
    qdq::cmd_delete(object, {"RPCMethod", "Plugin_Name", "Version"});
    qdq::cmd_result(object, result);
}

}  // namespace

void HgProcessPluginUniInstall(cJSON *object) { name_version_command(object, HgUnInstallPlugin, Target::named); }
void HgProcessPluginStop(cJSON *object) { name_version_command(object, HgPluginStop, Target::named); }
void HgProcessPluginQuery(cJSON *object) {
    // While the package downloads, the answer also says how far it is.
    long long done = 0, expected = 0;
    const char *name = qdq::cmd_text(object, "Plugin_Name");
    const bool downloading = name != nullptr && HgGetCpluginDownload(name, &done, &expected) == 0;
    name_version_command(object, HgQueryPluginInstallProgress, Target::any);
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(object, "Result");
    if (!downloading || !cJSON_IsNumber(result) || result->valueint != 0) return;
    cJSON_AddStringToObject(object, "Status", "Downloading");
    cJSON_AddNumberToObject(object, "Downloaded", static_cast<double>(done));
    cJSON_AddNumberToObject(object, "Plugin_size", static_cast<double>(expected));
}
void HgProcessPluginInstallCancel(cJSON *object) { name_version_command(object, HgPluginInstallCancel, Target::any); }
void HgProcessPluginRun(cJSON *object) { name_version_command(object, HgPluginRun, Target::any); }
void HgProcessFactoryPlugin(cJSON *object) { name_version_command(object, HgFactoryPlugin, Target::any); }

void HgProcessSetPluginParameterValues(cJSON *object) {
    const char *name = qdq::cmd_text(object, "Plugin_Name");
    const char *version = qdq::cmd_text(object, "Version");
    const char *parameter = qdq::cmd_text(object, "Parameter");
    if (name == nullptr || version == nullptr || parameter == nullptr) {
        qdq::cmd_refuse(object, qdq::kResultFailed);
        return;
    }
    const int result = HgSetPluginParameterValues(name, version, parameter);
    qdq::cmd_delete(object, {"RPCMethod", "Plugin_Name", "Version", "Parameter"});
    qdq::cmd_result(object, result);
}

void HgProcessListPlugin(cJSON *object) {
    // The list is built afresh; a "Plugin" member sent along is not echoed.
    qdq::cmd_delete(object, {"Plugin"});
    HgListPlugin(object);
    qdq::cmd_delete(object, {"RPCMethod"});
    qdq::cmd_result(object, 0);
}

int isOsgiPlugParamSet(const cJSON *object) {
    QDQ_LOG("isOsgiPlugParamSet start!\n");
    if (object == nullptr) return -1;
    const char *name = qdq::cmd_text(object, "Plugin_Name");
    const char *version = qdq::cmd_text(object, "Version");
    if (name == nullptr || name[0] == '\0' || version == nullptr) return -1;
    char bundleid[64] = "";
    const int ret = IsOSGIPluginExist(name, version, bundleid);
    QDQ_LOG("IsOSGIPluginExist!ret=%d, Plugin_Name: %s, Version: %s\n", ret, name, version);
    return ret;
}
