// The install-result push shared by the plugin command handlers and the C
// plugin installer.
#pragma once

#include "qdquick/qdquick.h"

// Thread body: pushes one install result to the platform through
// HgPushUpgradeMessage after a short wait. Takes ownership of `record`, a
// malloc'ed pluginpushresult, and frees it.
void *HgProcessPlugPush(void *record);
