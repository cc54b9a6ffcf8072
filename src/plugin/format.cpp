// Package format tests on a download's file name.
#include <cstring>

#include "common/log.h"

namespace {
// The text after the last '.', or nullptr when the name has no dot.
const char *extension(const char *filename) {
    const char *dot = std::strrchr(filename, '.');
    return dot != nullptr ? dot + 1 : nullptr;
}
}  // namespace

// A null name counts as a match: callers rely on it.
extern "C" QDQ_API int IsCplugFormat(const char *filename) {
    QDQ_LOG("IsCplugFormat start!");
    if (filename == nullptr) {
        QDQ_LOG("IsCplugFormat parameter is null!");
        return 0;
    }
    const char *ext = extension(filename);
    if (ext != nullptr && std::strcmp(ext, "cpk") == 0) {
        QDQ_LOG("IsCplugFormat: is CPK file for download!");
        return 0;
    }
    QDQ_LOG("IsCplugFormat :is not CPK file for download!");
    return -1;
}

extern "C" QDQ_API int IsOSGIFormat(const char *filename) {
    QDQ_LOG("IsOSGIFormat start!");
    if (filename == nullptr) {
        QDQ_LOG("IsOSGIFormat parameter is null!");
        return 0;
    }
    const char *ext = extension(filename);
    if (ext != nullptr && (std::strcmp(ext, "jar") == 0 || std::strcmp(ext, "tar") == 0)) {
        QDQ_LOG("IsOSGIFormat: is OSGI file for download!");
        return 0;
    }
    QDQ_LOG("IsOSGIFormat :is not OSGI file for download!");
    return -1;
}
