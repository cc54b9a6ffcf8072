// Ability commands (slot 4): the decoded "Parameter" object of a "Post"
// command, told apart by "CmdType". The answer is written into the object.
#pragma once

#include <cjson/cJSON.h>

namespace qdd {

// "GetDeviceInfo", "GetPlatformStatus" and "ListPlugins" answer with
// "Result": 0 and their keys; any other CmdType gets "Result": -1 and an
// "Error" text naming it. Nothing else is executed.
void run_ability(cJSON *command, int plattype);

}  // namespace qdd
