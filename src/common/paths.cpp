#include "common/paths.h"

#include <cstdlib>

namespace qdq {

const std::string &root() {
    // Never destroyed: detached threads still log while the process exits,
    // after static destructors have run.
    static const std::string *value = [] {
        const char *env = std::getenv("QDQUICK_ROOT");
        auto *r = new std::string(env ? env : "");
        while (!r->empty() && r->back() == '/') r->pop_back();
        return r;
    }();
    return *value;
}

std::string path(const char *fixed) {
    if (fixed == nullptr) return root();
    return root() + fixed;
}

}  // namespace qdq
