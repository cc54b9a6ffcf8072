// The daemon's threads: detached, with a modest explicit stack (the
// library's blocking calls run on them, so give them what its own threads
// get), and counted where shutdown has to wait for them.
#pragma once

namespace qdd {

// Starts fn(arg) detached. 0 or an errno value.
int start_detached(void *(*fn)(void *), void *arg);

// Like start_detached, and counts the thread as a session thread until fn
// returns or the thread is cancelled.
int start_session_thread(void *(*fn)(void *), void *arg);
// Waits at most `seconds` for every session thread to end; true if they did.
bool wait_session_threads(double seconds);

}  // namespace qdd
