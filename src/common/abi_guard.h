// The exception guard of the exported entry points: no exception crosses
// the C ABI.
#pragma once

#include <utility>

#include "common/guard.h"
#include "common/log.h"

namespace qdq {

// Runs `body` and returns its result; when it throws a std::exception,
// logs "<entry>: <what>" (nothing when `entry` is null) and returns
// `on_failure`.
template <typename R, typename Body>
R guard_entry(const char *entry, R on_failure, Body &&body) {
    return guard_with([](const char *name, const char *what) {
        if (name != nullptr) QDQ_LOG("%s: %s", name, what);
    }, entry, on_failure, std::forward<Body>(body));
}

}  // namespace qdq
