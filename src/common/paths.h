// Every fixed path of the system goes through qdq_path(), which prepends the
// root taken once from $QDQUICK_ROOT (empty by default), so tests and lab
// hosts can run the whole library inside a private directory tree.
#pragma once

#include <string>

namespace qdq {

// The root, without a trailing '/'; empty on a real gateway.
const std::string &root();

// root() + fixed. `fixed` is an absolute system path such as "/var/x".
std::string path(const char *fixed);
inline std::string path(const std::string &fixed) { return path(fixed.c_str()); }

}  // namespace qdq
