#include "common/json.h"

#include <cstring>

namespace qdq {

int print_into(const cJSON *item, char *out, std::size_t cap) {
    if (out == nullptr || cap == 0) return -1;
    out[0] = '\0';
    CText text(cJSON_Print(item));
    if (!text) return -1;
    std::size_t len = std::strlen(text.get());
    if (len >= cap) return -1;
    std::memcpy(out, text.get(), len + 1);
    return static_cast<int>(len);
}

}  // namespace qdq
