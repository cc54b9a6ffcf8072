#include "quick_install.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstring>

#include "facts.h"
#include "qdquick/qdquick.h"
#include "say.h"

namespace qdd {

namespace {

cJSON *failure(const char *why) {
    cJSON *a = cJSON_CreateObject();
    cJSON_AddNumberToObject(a, "Result", -1);
    cJSON_AddStringToObject(a, "Error", why);
    return a;
}

cJSON *answer_for(const char *request) {
    const char *end = nullptr;
    cJSON *req = request != nullptr ? cJSON_ParseWithOpts(request, &end, 0) : nullptr;
    if (!cJSON_IsObject(req)) {
        cJSON_Delete(req);
        return failure("request is not a JSON object");
    }
    const cJSON *cmd = cJSON_GetObjectItemCaseSensitive(req, "Cmd");
    const char *name = cJSON_IsString(cmd) ? cmd->valuestring : "";
    cJSON *a = nullptr;
    if (std::strcmp(name, "Discover") == 0) {
        a = cJSON_CreateObject();
        cJSON_AddNumberToObject(a, "Result", 0);
        add_device_facts(a);
        cJSON_AddBoolToObject(a, "CubeRegistered", getSdkDevInfo()->cuberegistered != 0);
    } else if (std::strcmp(name, "Status") == 0) {
        a = cJSON_CreateObject();
        cJSON_AddNumberToObject(a, "Result", 0);
        cJSON_AddItemToObject(a, "Platforms", platform_states());
    } else {
        a = failure("unknown Cmd; use \"Discover\" or \"Status\"");
    }
    cJSON_Delete(req);
    return a;
}

}  // namespace

void answer_quick_install(char *reply, std::size_t cap, const char *request) {
    if (reply == nullptr || cap == 0) return;
    cJSON *a = answer_for(request);
    char *text = cJSON_PrintUnformatted(a);
    cJSON_Delete(a);
    const char *fallback = "{\"Result\":-1,\"Error\":\"answer too long\"}";
    const char *out = text != nullptr && std::strlen(text) < cap ? text : fallback;
    std::snprintf(reply, cap, "%s", out);
    note("quick-install request answered: %s", reply);
    cJSON_free(text);
}

}  // namespace qdd
