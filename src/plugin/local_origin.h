// Bundles installed by a local client's order. When the host lets local
// clients order installs, such a plugin never runs with more rights than a
// user of its own, whatever its descriptor claims. The names are kept in
// "/qdconf/CPlugin_local_origin" (one a line), so a restart does not
// forget them.
#pragma once

namespace qdq {

// Remembers `name` (bundle names longer than a record's 127 characters are
// kept cut, as the install record keeps them). Names with control
// characters are never installed and are not kept.
void plugin_mark_local_origin(const char *name);

// True when `name` was installed by a local order.
bool plugin_local_origin(const char *name);

}  // namespace qdq
