#include "facts.h"

#include <cstring>
#include <string>

#include "qdquick/qdquick.h"
#include "records.h"

namespace qdd {

namespace {

// Record fields are written by other threads: copy at most their size.
template <std::size_t N>
std::string field(const char (&f)[N]) {
    return std::string(f, strnlen(f, N));
}

}  // namespace

void json_set(cJSON *object, const char *key, cJSON *value) {
    if (cJSON_GetObjectItemCaseSensitive(object, key) != nullptr)
        cJSON_ReplaceItemInObjectCaseSensitive(object, key, value);
    else
        cJSON_AddItemToObject(object, key, value);
}

void add_device_facts(cJSON *object) {
    const deviceinfo_t *d = getSdkDevInfo();
    json_set(object, "SN", cJSON_CreateString(field(d->devsn).c_str()));
    json_set(object, "MAC", cJSON_CreateString(field(d->mac).c_str()));
    json_set(object, "Model", cJSON_CreateString(field(d->model).c_str()));
    json_set(object, "FirmwareVer", cJSON_CreateString(field(d->firmwarever).c_str()));
    json_set(object, "HardwareVer", cJSON_CreateString(field(d->hardwarever).c_str()));
    json_set(object, "LOID", cJSON_CreateString(field(d->loid).c_str()));
    json_set(object, "IPAddr", cJSON_CreateString(field(d->ipaddr).c_str()));
}

cJSON *platform_states() {
    static const char *const names[] = {"cube", "manage", "plugin"};
    cJSON *states = cJSON_CreateObject();
    for (int type = 1; type <= 3; ++type) {
        const platinfo *p = getPlatInfo(type);
        cJSON *s = cJSON_AddObjectToObject(states, names[type - 1]);
        cJSON_AddStringToObject(s, "Status", field(p->status).c_str());
        cJSON_AddStringToObject(s, "Address", record_address(p).c_str());
        cJSON_AddBoolToObject(s, "Registered", type == 1 ? getSdkDevInfo()->cuberegistered != 0 : p->regflag != 0);
    }
    return states;
}

}  // namespace qdd
