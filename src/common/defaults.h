// Default platform addresses, for records whose MgtURL is empty or "0.0.0.0"
// (and the app store's server when the cube record has none). They are
// deployment values, taken from the host daemon's environment:
// QDQUICK_DEFAULT_CUBE (the cube platform's host name) and
// QDQUICK_DEFAULT_MANAGE (the manage platform's IPv4 literal). Without them
// the built-in values are documentation names that reach no platform, so an
// unconfigured gateway fails to connect instead of calling a stranger.
#pragma once

namespace qdq {

const char *default_cube_address();    // "cube.platform.example"
const char *default_manage_address();  // "192.0.2.1"

}  // namespace qdq
