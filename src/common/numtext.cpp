// Decimal text to number and back.
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "qdquick/qdquick.h"

namespace {
// Every character a digit, with an optional leading '-' when allowed. The
// empty text passes (and reads as 0), as the callers expect.
bool all_digits(const char *text, bool allow_minus) {
    for (const char *p = text; *p != '\0'; ++p) {
        if (p == text && allow_minus && *p == '-') continue;
        if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    }
    return true;
}

// atoi as the gateway's 32-bit C library does it: out-of-range texts
// saturate at INT_MIN/INT_MAX instead of wrapping through a 64-bit long.
int atoi32(const char *text) {
    long long v = std::strtoll(text, nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}
}  // namespace

extern "C" QDQ_API int str_to_int(const char *text, int *out) {
    if (text == nullptr || out == nullptr) return -1;
    if (!all_digits(text, true)) return -1;
    *out = atoi32(text);
    return 0;
}

// Taken as a signed number like its twin, so texts above INT_MAX do not reach
// their unsigned value; callers only pass small counts.
extern "C" QDQ_API int str_to_uint(const char *text, unsigned int *out) {
    if (text == nullptr || out == nullptr) return -1;
    if (!all_digits(text, false)) return -1;
    *out = static_cast<unsigned int>(atoi32(text));
    return 0;
}

extern "C" QDQ_API void int_to_str(const int *value, char *text) {
    if (value == nullptr || text == nullptr) return;
    std::snprintf(text, 12, "%d", *value);
}

extern "C" QDQ_API void uint_to_str(const unsigned int *value, char *text) {
    if (value == nullptr || text == nullptr) return;
    std::snprintf(text, 12, "%u", *value);
}
