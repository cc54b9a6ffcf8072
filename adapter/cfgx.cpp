// setcfgx / getcfgx: the platform's key=value configuration files. Callers
// pass system paths such as "/etc/config/system/quickconf.conf".
#include <cstring>
#include <string>

#include "adapter_io.h"
#include "common/paths.h"
#include "kvfile.h"
#include "qdquick/qdplatform.h"

namespace {

// A key with '=' or a line break, or a value with a line break, would write
// a line that reads back as something else.
bool valid_entry(const char *key, const char *value) {
    return key[0] != '\0' && std::strpbrk(key, "=\r\n") == nullptr &&
           std::strpbrk(value, "\r\n") == nullptr;
}

}  // namespace

extern "C" QDQ_API int setcfgx(const char *file, const char *key, const char *value) {
    if (file == nullptr || key == nullptr || value == nullptr || !valid_entry(key, value)) {
        qdp::warn("setcfgx: bad arguments");
        return -1;
    }
    return qdp::guard("setcfgx", -1, [&] {
        return qdp::kv_set(qdq::path(file), key, value) ? 0 : -1;
    });
}

extern "C" QDQ_API int getcfgx(const char *file, const char *key, char *value) {
    if (value != nullptr) value[0] = '\0';
    if (file == nullptr || key == nullptr || value == nullptr || key[0] == '\0') return -1;
    return qdp::guard("getcfgx", -1, [&] {
        std::string found;
        if (qdp::kv_get(qdq::path(file), key, found) != qdp::KvResult::found) return -1;
        qdp::copy_text(value, QDP_CFGVALUE_SIZE, found);
        return 0;
    });
}
