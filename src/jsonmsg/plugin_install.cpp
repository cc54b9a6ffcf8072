// "Install": the plugin install command.
#include "common/log.h"
#include "jsonmsg/cmd_json.h"
#include "jsonmsg/processjsonmsg.h"
#include "plugin/install_push.h"

namespace {

// Install results that must be pushed because the facade will not.
bool needs_push(int result) { return result == -2 || result == -3; }

}  // namespace

void HgProcessPluginInstall(cJSON *object) {
    QDQ_LOG("HgProcessPluginInstall start");
    // Every key may be missing or of another type: texts then read as empty
    // (the installer refuses an empty name or address before any command),
    // numbers as 0 (a missing "OS" is OS 0).
    const char *name = qdq::cmd_text_or_empty(object, "Plugin_Name");
    const char *version = qdq::cmd_text_or_empty(object, "Version");
    const char *url = qdq::cmd_text_or_empty(object, "Download_url");
    const int os = GetIntValueFromJson(cJSON_GetObjectItemCaseSensitive(object, "OS"));
    const int size = GetIntValueFromJson(cJSON_GetObjectItemCaseSensitive(object, "Plugin_size"));
    const char *upgradeid = qdq::cmd_text(object, "upgrade_ID");

    int result = qdq::kResultUnsupportedOs;
    if (os == 0 || os == 5) result = HgInstallPlugin(os, name, version, url, size, upgradeid);
    if (needs_push(result)) result = qdq::start_install_push(result, name, version, upgradeid);

    qdq::cmd_delete(object, {"RPCMethod", "Plugin_Name", "Version", "Download_url", "Plugin_size", "OS", "upgrade_ID"});
    qdq::cmd_result(object, result);
    if (result != 0) QDQ_LOG("HgProcessPluginInstall,start the push thread failed");
}
