#include "jsonmsg/cmd_json.h"

#include <cstring>

namespace qdq {

const char *cmd_text(const cJSON *object, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

const char *cmd_text_or_empty(const cJSON *object, const char *key) {
    const char *text = cmd_text(object, key);
    return text != nullptr ? text : "";
}

void cmd_delete(cJSON *object, std::initializer_list<const char *> keys) {
    // A hostile command may repeat a key; every copy is consumed.
    for (const char *key : keys)
        while (cJSON_GetObjectItemCaseSensitive(object, key) != nullptr)
            cJSON_DeleteItemFromObjectCaseSensitive(object, key);
}

void cmd_result(cJSON *object, int result) {
    cmd_delete(object, {"Result"});
    cJSON_AddNumberToObject(object, "Result", result);
}

void cmd_refuse(cJSON *object, int result) {
    while (object != nullptr && object->child != nullptr) {
        cJSON *item = object->child;
        cJSON_DetachItemViaPointer(object, item);
        cJSON_Delete(item);
    }
    cJSON_AddNumberToObject(object, "Result", result);
}

void cmd_set_text(cJSON *object, const char *key, const char *value) {
    cmd_delete(object, {key});
    cJSON_AddStringToObject(object, key, value);
}

void copy_field(char *dst, unsigned cap, const char *src) {
    if (dst == nullptr || cap == 0) return;
    std::memset(dst, 0, cap);
    if (src == nullptr) return;
    std::memcpy(dst, src, strnlen(src, cap - 1));
}

}  // namespace qdq
