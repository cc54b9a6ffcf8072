// Typed reads of parsed JSON items.
#include <cjson/cJSON.h>

#include <cstdlib>
#include <cstring>

#include "common/log.h"

namespace {
// Longest string value GetCharValueFromJson hands on, terminator included.
constexpr std::size_t kJsonTextMax = 128;
}  // namespace

extern "C" QDQ_API int GetIntValueFromJson(const struct cJSON *item) {
    if (item == nullptr) {
        QDQ_LOG("json object is null\n");
        return 0;
    }
    if (cJSON_IsNumber(item)) return item->valueint;
    // Numbers sent as text are common on the wire; anything without text
    // reads as 0 rather than crashing.
    return item->valuestring != nullptr ? std::atoi(item->valuestring) : 0;
}

extern "C" QDQ_API int GetCharValueFromJson(const struct cJSON *item, char *dest) {
    if (item == nullptr || dest == nullptr) {
        QDQ_LOG("json object or destbuf is null\n");
        return -1;
    }
    if (cJSON_IsNull(item)) {
        dest[0] = '\0';
        return 0;
    }
    if (!cJSON_IsString(item) || item->valuestring == nullptr) return 0;
    // Callers size dest for values shorter than 128 bytes; a longer value
    // from the wire is cut to 127 characters instead of overrunning dest.
    std::size_t len = strnlen(item->valuestring, kJsonTextMax - 1);
    if (len == 0) return 0;  // an empty string keeps what dest held
    std::memcpy(dest, item->valuestring, len);
    dest[len] = '\0';
    return 0;
}
