// The push of a final install result to the platform, shared by the
// "Install" command and the C plugin installer's status check.
#pragma once

#include "qdquick/qdquick.h"

// Thread body: pushes one install result through HgPushUpgradeMessage after
// a short wait. Takes ownership of `record`, a malloc'ed pluginpushresult,
// and frees it.
void *HgProcessPlugPush(void *record);

namespace qdq {
// Starts the push of `result` for the plugin on a push worker. Texts may be
// null (read as empty) and are cut to their record fields. Returns 0, or
// -1 / an errno value when no worker could take it (nothing is pushed).
int start_install_push(int result, const char *name, const char *version, const char *upgradeid);
}  // namespace qdq
