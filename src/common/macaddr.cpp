// MAC address text: delimiters removed or inserted in the caller's buffer.
#include <cstring>

#include "qdquick/qdquick.h"

namespace {
// setmacDelimiter's result fits "00:1A:2B:3C:4D:5E" and its terminator, the
// size callers give `mac`.
constexpr std::size_t kMacTextSize = 18;
}  // namespace

// Removing characters never lengthens the text, so this works in place and
// needs no scratch buffer: input of any length is handled.
extern "C" QDQ_API char *delmacDelimiter(char *mac, char delim) {
    if (mac == nullptr) return mac;
    char *out = mac;
    for (const char *in = mac; *in != '\0'; ++in) {
        if (*in != delim) *out++ = *in;
    }
    *out = '\0';
    return mac;
}

// A delimiter follows every second character except the last. The result
// is cut to 17 characters: `mac` is only known to hold 18 bytes, and longer
// input must not overrun it.
extern "C" QDQ_API char *setmacDelimiter(char *mac, char delim) {
    if (mac == nullptr) return mac;
    char result[kMacTextSize];
    std::size_t len = std::strlen(mac);
    std::size_t n = 0;
    for (std::size_t i = 0; i < len && n < kMacTextSize - 1; ++i) {
        result[n++] = mac[i];
        if (i % 2 == 1 && i + 1 < len && n < kMacTextSize - 1) result[n++] = delim;
    }
    std::memcpy(mac, result, n);
    mac[n] = '\0';
    return mac;
}
