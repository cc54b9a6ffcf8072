// The exception guard of the exported entry points: no exception crosses
// the C ABI.
#pragma once

#include <exception>
#include <utility>

#include "common/log.h"

namespace qdq {

// Runs `body` and returns its result; when it throws a std::exception,
// logs "<entry>: <what>" (nothing when `entry` is null) and returns
// `on_failure`. Only std::exception is caught: a thread cancelled inside
// unwinds through here with a foreign exception that must go on, and so
// this is not noexcept either.
template <typename R, typename Body>
R guard_entry(const char *entry, R on_failure, Body &&body) {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception &e) {
        if (entry != nullptr) QDQ_LOG("%s: %s", entry, e.what());
        return on_failure;
    }
}

}  // namespace qdq
