// Device facts from the device file (format in device.h).
#include "device.h"

#include <cjson/cJSON.h>

#include <cstdlib>

#include "adapter_io.h"
#include "common/paths.h"
#include "kvfile.h"
#include "qdquick/qdplatform.h"

namespace qdp {

std::string device_value(const char *key) {
    std::string value;
    kv_get(qdq::path(kDeviceFile), key, value);  // missing or unreadable: ""
    return value;
}

}  // namespace qdp

namespace {

void device_failure(const char *key, const char *what) { qdp::warn("device %s: %s", key, what); }

int copy_fact(const char *key, char *out, std::size_t cap) {
    if (out == nullptr) return -1;
    out[0] = '\0';
    return qdq::guard_with(device_failure, key, -1, [&] {
        qdp::copy_text(out, cap, qdp::device_value(key));
        return 0;
    });
}

}  // namespace

extern "C" QDQ_API int GetLoidInfo(char *loid) { return copy_fact("loid", loid, QDP_LOID_SIZE); }

extern "C" QDQ_API int GetCardNo(char *cardno) {
    return copy_fact("cardno", cardno, QDP_CARDNO_SIZE);
}

extern "C" QDQ_API int get_wevrin_status(void) {
    return qdq::guard_with(device_failure, "wevrin", 0, [] {
        return std::atoi(qdp::device_value("wevrin").c_str()) == 1 ? 1 : 0;
    });
}

extern "C" QDQ_API int gghelper_opmode_repeatermode_get(char *br0ip, char *wanlinkmode) {
    int a = copy_fact("br0ip", br0ip, QDP_BR0IP_SIZE);
    int b = copy_fact("wanlinkmode", wanlinkmode, QDP_WANLINKMODE_SIZE);
    return a == 0 && b == 0 ? 0 : -1;
}

extern "C" QDQ_API cJSON *CreateQueryUpdateverReqjson(void) {
    return qdq::guard_with(device_failure, "childrouter", static_cast<cJSON *>(nullptr), []() -> cJSON * {
        std::string text = qdp::device_value("childrouter");
        if (text.empty()) return nullptr;
        cJSON *value = cJSON_ParseWithOpts(text.c_str(), nullptr, 1);  // nothing after it
        if (value == nullptr) {
            qdp::warn("device childrouter is not JSON");
            return nullptr;
        }
        cJSON *obj = cJSON_CreateObject();
        if (obj == nullptr || !cJSON_AddItemToObject(obj, "childRouter", value)) {
            cJSON_Delete(obj);
            cJSON_Delete(value);
            return nullptr;
        }
        return obj;
    });
}
