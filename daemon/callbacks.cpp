// Callbacks run on the library's threads. Slots 0 to 2 only queue an event
// for the main loop; slots 3 and 4 answer at once (their answer is awaited).
// No exception may travel back into the library.
#include "callbacks.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "ability.h"
#include "common/ids.h"
#include "events.h"
#include "quick_install.h"
#include "say.h"

namespace qdd {

namespace {

constexpr std::size_t kQuickReplySize = 512;

void on_timer(int timerid, int, int, int) {
    char what[32];
    std::snprintf(what, sizeof what, "timer %d", timerid);
    guarded(what, [&] {
        if (timerid == qdq::kTimerConnectCube) post_event({Event::kTimer, 0, timerid, {}});
        else note("timer %d has no action here", timerid);
    });
}

void on_status(int plattype, const char *status, int result) {
    guarded("platform status", [&] { post_event({Event::kStatus, plattype, result, status != nullptr ? status : ""}); });
}

void on_distri(int, platinfo *record) {
    // The library reports 2 for every non-zero mode, also when it rewrote
    // the cube record: the record itself tells which platform moved.
    const int plattype = record == &cubeplatinfo ? 1 : record == &manageplatinfo ? 2 : 0;
    if (plattype == 0) return;
    guarded("new platform address", [&] {
        std::string address(record->MgtURL, strnlen(record->MgtURL, sizeof record->MgtURL));
        post_event({Event::kDistri, plattype, static_cast<int>(record->port), address});
    });
}

void on_quick_install(char *reply, const char *request) {
    guarded("quick-install request", [&] { answer_quick_install(reply, kQuickReplySize, request); });
}

void on_ability(cJSON *command, int *plattype) {
    guarded("ability command", [&] { run_ability(command, plattype != nullptr ? *plattype : 0); });
}

}  // namespace

quickevcb_t host_callbacks() {
    quickevcb_t cb{};
    cb.timerevent = on_timer;
    cb.platstatus = on_status;
    cb.platdistri = on_distri;
    cb.quickinstall = on_quick_install;
    cb.ability = on_ability;
    return cb;
}

}  // namespace qdd
