#include "common/defaults.h"

#include <cstdlib>

namespace qdq {

namespace {
const char *from_env(const char *name, const char *fallback) {
    const char *value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : fallback;
}
}  // namespace

const char *default_cube_host() { return from_env("QDQUICK_DEFAULT_CUBE", "cube.quendara.net"); }

const char *default_manage_addr() { return from_env("QDQUICK_DEFAULT_MANAGE", "10.255.0.1"); }

}  // namespace qdq
