// The one exception guard: a body runs, and a std::exception becomes a
// report and a fixed result. Header-only and free of any log, so the
// library, the adapter and the daemon each pass their own report.
#pragma once

#include <exception>
#include <utility>

namespace qdq {

// Runs `body` and returns its result; when it throws a std::exception,
// calls `report(entry, what)` and returns `on_failure`. Only
// std::exception is caught: a thread cancelled inside unwinds through here
// with a foreign exception that must go on, and so this is not noexcept
// either.
template <typename Report, typename R, typename Body>
R guard_with(Report &&report, const char *entry, R on_failure, Body &&body) {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception &e) {
        std::forward<Report>(report)(entry, e.what());
        return on_failure;
    }
}

}  // namespace qdq
