// HgCplugPushCheck: hands a final install status to the install-result push.
#include <cstring>

#include "common/log.h"
#include "plugin/install_push.h"

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

    return qdq::start_install_push(final->code, name, version, upgradeid);
}
