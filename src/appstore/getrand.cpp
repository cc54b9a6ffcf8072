// getrand: the 32-digit random token sent as "DevRND".
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/log.h"

extern "C" QDQ_API void getrand(char *out) {
    if (out == nullptr) return;
    // Seeded with the current second, so two tokens drawn within the same
    // second are equal (accepted). rand_r keeps the process-wide generator
    // untouched for the host.
    unsigned int seed = static_cast<unsigned int>(time(nullptr));
    char token[33];
    for (int i = 0; i < 8; ++i)
        std::snprintf(token + 4 * i, sizeof token - 4 * i, "%04x", static_cast<unsigned>(rand_r(&seed)) & 0xffffu);
    for (char *p = token; *p; ++p) *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
    std::snprintf(out, 33, "%s", token);
    QDQ_LOG("DevRND:%s\n", out);
}
