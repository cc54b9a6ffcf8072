// HgProcessPlugPush and its start: an install result on its way to the
// platform.
#include "plugin/install_push.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/clock.h"
#include "common/log.h"
#include "common/thread.h"
#include "qdquick/qdplatform.h"

namespace {

constexpr int kPushDelay = 5;  // seconds before the result is pushed

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

}  // namespace

int qdq::start_install_push(int result, const char *name, const char *version, const char *upgradeid) {
    auto *record = static_cast<pluginpushresult *>(std::calloc(1, sizeof(pluginpushresult)));
    if (record == nullptr) return -1;
    record->result = result;
    std::snprintf(record->name, sizeof record->name, "%s", name != nullptr ? name : "");
    std::snprintf(record->version, sizeof record->version, "%s", version != nullptr ? version : "");
    std::snprintf(record->upgradeid, sizeof record->upgradeid, "%s", upgradeid != nullptr ? upgradeid : "");
    // The push thread owns the record once it runs; if it never starts, the
    // record is still ours to free.
    const int rc = start_worker(Work::push, HgProcessPlugPush, record);
    if (rc != 0) std::free(record);
    return rc;
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
