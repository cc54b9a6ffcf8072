// Library callbacks run on the library's threads, some while it is in the
// middle of a session step; they only queue an event here and return. The
// main loop does the work (status file, reconnect policy, output).
#pragma once

#include <string>
#include <vector>

namespace qdd {

struct Event {
    enum Kind { kStatus, kTimer, kDistri } kind;
    int plattype = 0;  // kStatus, kDistri
    int value = 0;     // kStatus: the result; kTimer: the timer id
    std::string text;  // kStatus: the status word; kDistri: "address:port"
};

// Creates the wake-up descriptor; call once before any callback can run.
bool events_init();
// Readable while events are queued.
int events_fd();
void post_event(Event event);
// Everything queued so far, oldest first; clears the wake-up.
std::vector<Event> take_events();

}  // namespace qdd
