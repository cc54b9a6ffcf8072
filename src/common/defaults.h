// Built-in platform addresses used when the host left a record's address
// empty. Each can be overridden from the environment so that a lab host or a
// test can point the gateway at its own servers.
#pragma once

namespace qdq {

// Cube platform host name: $QDQUICK_DEFAULT_CUBE, else "cube.quendara.net".
const char *default_cube_host();

// Manage platform address: $QDQUICK_DEFAULT_MANAGE, else "10.255.0.1".
const char *default_manage_addr();

// Both texts stay valid until the environment changes: copy them at once.

}  // namespace qdq
