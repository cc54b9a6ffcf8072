// The one clock of the library. Every sleep, tick, select wait and socket
// time-out is expressed in system seconds and scaled by $QDQUICK_TIME_SCALE
// (a positive decimal, 1 by default; 0.01 turns a 60 s retry into 0.6 s).
#pragma once

#include <sys/time.h>

#include <chrono>

namespace qdq {

double time_scale();

// The scaled duration of `seconds` system seconds.
std::chrono::nanoseconds scaled(double seconds);

// Sleeps `seconds` system seconds (scaled). A cancellation point.
void sleep_for(double seconds);

// A timeval for select() and SO_RCVTIMEO/SO_SNDTIMEO. Never zero for a
// positive input: a scaled wait must not turn into a poll or "no time-out".
struct timeval timeval_for(double seconds);

}  // namespace qdq
