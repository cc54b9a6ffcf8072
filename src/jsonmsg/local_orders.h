// Plugin lifecycle orders from local clients (local UDP 18401 and local
// TCP, plattype 5 and 4). Anyone on the LAN can reach those ports, so such
// orders download, start, stop or remove nothing unless the host enabled
// them with gQuickLocalPluginOrders.
#pragma once

#include <cjson/cJSON.h>

namespace qdq {

// Answer to a plugin lifecycle order from a local client the host has not
// enabled.
inline constexpr int kResultLocalRefused = -15;

// For a command of `method` from `plattype`: true when it is a refused local
// lifecycle order; `object` then holds the refusal reply (the request keys
// consumed, "Result" -15). An enabled local "Install" marks its bundle as
// installed by a local order before it goes on (plugin/local_origin.h).
bool refuse_local_order(cJSON *object, const char *method, int plattype);

}  // namespace qdq
