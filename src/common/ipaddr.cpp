// Address form tests. They are deliberately shallow (no range checks):
// callers use them to tell a literal from a host name, not to validate.
#include <cstdio>
#include <cstring>

#include "qdquick/qdquick.h"

extern "C" QDQ_API int isValidIpv6Address(const char *text) {
    if (text == nullptr || *text == '\0') return 0;
    return std::strchr(text, ':') != nullptr ? 1 : 0;
}

extern "C" QDQ_API int isValidIpv4Address(const char *text) {
    if (text == nullptr || *text == '\0') return 0;
    int a = 0, b = 0, c = 0, d = 0;
    if (std::sscanf(text, "%d.%d.%d.%d", &a, &b, &c, &d) != 4) return 0;
    return a != 0 ? 1 : 0;
}

extern "C" QDQ_API int isValidIpAddress(int family, const char *text) {
    if (text == nullptr || *text == '\0') return 0;
    return family == AF_INET ? isValidIpv4Address(text) : isValidIpv6Address(text);
}
