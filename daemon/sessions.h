// Starting, keeping up and stopping the platform sessions and local
// services as the configuration says.
#pragma once

#include <string>

#include "config.h"

namespace qdd {

// The configuration the sessions use; kept current by set_platform_address.
void sessions_configure(const Config &c);
// Records the address a platform moved the gateway to (slot 2).
void sessions_remember_address(int plattype, const std::string &address, unsigned port);

// Starts the local services and the platform sessions.
void sessions_start();
// Reconnect policy and the plugin platform's start, on a status change.
void sessions_on_status(int plattype, const std::string &status, int result);
// Timer 8: connect the cube platform again.
void sessions_on_cube_timer();
// Disconnects the platforms, stops the local TCP service and waits at most
// `seconds` for the session threads. True when they all ended.
bool sessions_stop(double seconds);

}  // namespace qdd
