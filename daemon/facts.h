// Facts the daemon hands out locally (ability commands, quick-install
// answers): the device identity and the platforms' states.
#pragma once

#include <cjson/cJSON.h>

namespace qdd {

// Sets `key` in `object`, replacing an earlier member of that name.
void json_set(cJSON *object, const char *key, cJSON *value);

// "SN", "MAC", "Model", "FirmwareVer", "HardwareVer", "LOID", "IPAddr".
void add_device_facts(cJSON *object);
// "cube", "manage", "plugin": each {"Status", "Address", "Registered"}.
cJSON *platform_states();

}  // namespace qdd
