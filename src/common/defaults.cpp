#include "common/defaults.h"

#include <cstdlib>

namespace qdq {

namespace {
// Read at each use (the host sets them once at start-up); callers copy the
// text at once.
const char *env_or(const char *name, const char *fallback) {
    const char *v = std::getenv(name);
    return (v != nullptr && *v != '\0') ? v : fallback;
}
}  // namespace

const char *default_cube_address() { return env_or("QDQUICK_DEFAULT_CUBE", "cube.platform.example"); }

const char *default_manage_address() { return env_or("QDQUICK_DEFAULT_MANAGE", "192.0.2.1"); }

}  // namespace qdq
