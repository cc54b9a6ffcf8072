// "Install" and the push of an install result to the platform.
#include <cstdlib>
#include <cstring>

#include "common/clock.h"
#include "common/log.h"
#include "common/thread.h"
#include "jsonmsg/cmd_json.h"
#include "jsonmsg/plugin_push.h"
#include "jsonmsg/processjsonmsg.h"
#include "qdquick/qdplatform.h"

namespace {

constexpr int kPushDelay = 5;  // seconds before the result is pushed

// Install results that must be pushed because the facade will not.
bool needs_push(int result) { return result == -2 || result == -3; }

// The platform's error code text for an install result code.
const char *error_code(int result) {
    switch (result) {
    case 0: return "";
    case 9:
    case 9010:
    case 9016: return "2";
    case -2: return "4";
    case -3: return "1";
    default: return "5";
    }
}

// A record field may come without its NUL; read at most its size.
void copy_record_text(char *dst, unsigned cap, const char *src, unsigned srccap) {
    std::size_t n = strnlen(src, srccap);
    if (n > cap - 1) n = cap - 1;
    std::memset(dst, 0, cap);
    std::memcpy(dst, src, n);
}

int start_push(int result, const char *name, const char *version, const char *upgradeid) {
    auto *record = static_cast<pluginpushresult *>(std::calloc(1, sizeof(pluginpushresult)));
    if (record == nullptr) return -1;
    record->result = result;
    qdq::copy_field(record->name, sizeof record->name, name);
    qdq::copy_field(record->version, sizeof record->version, version);
    qdq::copy_field(record->upgradeid, sizeof record->upgradeid, upgradeid);
    // The thread owns the record from here on.
    const int rc = qdq::start_worker(qdq::Work::push, HgProcessPlugPush, record);
    if (rc != 0) std::free(record);
    return rc;
}

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
    if (needs_push(result)) result = start_push(result, name, version, upgradeid);

    qdq::cmd_delete(object, {"RPCMethod", "Plugin_Name", "Version", "Download_url", "Plugin_size", "OS", "upgrade_ID"});
    qdq::cmd_result(object, result);
    if (result != 0) QDQ_LOG("HgProcessPluginInstall,start the push thread failed");
}

void *HgProcessPlugPush(void *arg) {
    QDQ_LOG("HgProcessPlugPush start");
    auto *record = static_cast<pluginpushresult *>(arg);
    if (record == nullptr) return nullptr;
    if (record->upgradeid[0] == '\0') {
        std::free(record);
        QDQ_LOG("upgrade_ID is null , do not push!");
        return nullptr;
    }
    upgrademsg msg;
    std::memset(&msg, 0, sizeof msg);
    msg.failed = record->result != 0 ? 1 : 0;
    copy_record_text(msg.version, sizeof msg.version, record->version, sizeof record->version);
    copy_record_text(msg.errcode, sizeof msg.errcode, error_code(record->result), sizeof msg.errcode);
    copy_record_text(msg.upgradeid, sizeof msg.upgradeid, record->upgradeid, sizeof record->upgradeid);
    copy_record_text(msg.name, sizeof msg.name, record->name, sizeof record->name);
    std::free(record);

    qdq::sleep_for(kPushDelay);
    const int ret = HgPushUpgradeMessage(0, &msg);
    QDQ_LOG("HgProcessPlugPush end,ret=%d", ret);
    return nullptr;
}
