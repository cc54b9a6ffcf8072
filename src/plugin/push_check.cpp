// HgCplugPushCheck: hands a final install status to the install-result push.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "common/thread.h"
#include "jsonmsg/plugin_push.h"

namespace {
struct FinalStatus {
    const char *status;
    int code;
};
// Only these end an install; the platform hears of nothing else.
constexpr FinalStatus kFinal[] = {{"Installed", 0}, {"install_failed", 1}, {"X_BROADCOM_COM_DnldFailed", 9}};
}  // namespace

extern "C" QDQ_API int HgCplugPushCheck(const char *name, const char *version, const char *status,
                                        const char *upgradeid) {
    QDQ_LOG("HgCplugPushCheck start, name:%s,status:%s", name != nullptr ? name : "", status != nullptr ? status : "");
    if (upgradeid == nullptr || upgradeid[0] == '\0' || status == nullptr) return -1;
    QDQ_LOG("HgCplugPushCheck,upgrade_ID=%s", upgradeid);
    const FinalStatus *final = nullptr;
    for (const FinalStatus &f : kFinal)
        if (std::strcmp(status, f.status) == 0) final = &f;
    if (final == nullptr) return -1;

    auto *record = static_cast<pluginpushresult *>(std::calloc(1, sizeof(pluginpushresult)));
    if (record == nullptr) return -1;
    record->result = final->code;
    std::snprintf(record->name, sizeof record->name, "%s", name != nullptr ? name : "");
    std::snprintf(record->version, sizeof record->version, "%s", version != nullptr ? version : "");
    std::snprintf(record->upgradeid, sizeof record->upgradeid, "%s", upgradeid);
    // The push thread owns the record once it runs; if it never starts, the
    // record is still ours to free.
    int rc = qdq::start_worker(qdq::Work::push, HgProcessPlugPush, record);
    if (rc != 0) std::free(record);
    return rc;
}
