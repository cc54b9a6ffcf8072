#include "common/paths.h"

#include <cstdlib>

namespace qdq {

const std::string &root() {
    static const std::string value = [] {
        const char *env = std::getenv("QDQUICK_ROOT");
        std::string r = env ? env : "";
        while (!r.empty() && r.back() == '/') r.pop_back();
        return r;
    }();
    return value;
}

std::string path(const char *fixed) {
    if (fixed == nullptr) return root();
    return root() + fixed;
}

}  // namespace qdq
