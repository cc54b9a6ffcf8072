// The host's plugin hooks (HgSetPluginHooks), read by the facade.
#pragma once

#include "qdquick/qdquick.h"

namespace qdq {

// A consistent copy of the hooks in force (all NULL when none were set).
qdqpluginhooks_t plugin_hooks();

}  // namespace qdq
