// Null-guarded string copy and compare offered to the host process.
#include <cstring>

#include "common/log.h"

// appPtrStrcpy is unbounded by contract: the caller sizes `dest` for `src`.
// It exists for the host only; nothing inside the library may use it, least
// of all for text that came from a platform or a local client.
extern "C" QDQ_API char *appPtrStrcpy(char *dest, const char *src) {
    if (dest == nullptr || src == nullptr) {
        // The words name the function differently; they stay as existing log
        // readers know them.
        QDQ_LOG("appStrcpyPtr() err!destStr or srcStr is NULL!\n");
        return dest;
    }
    std::memmove(dest, src, std::strlen(src) + 1);
    return dest;
}

extern "C" QDQ_API int appPtrStrcmp(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) {
        QDQ_LOG("appPtrStrcmy() err!destStr or srcStr is NULL!\n");
        return -1;
    }
    return std::strcmp(a, b);
}
