// Builders of the Boot, Register and Heartbeat messages a platform session
// sends. Each returns its JSON object printed formatted (cJSON_Print) as a
// heap text sized to the message, or null (logged) when it could not be
// built: a message is sent whole or not at all, never cut or empty.
#pragma once

#include "common/json.h"

qdq::CText GenerateBootMessage(int plattype);
qdq::CText GenerateRegMessage(int plattype, const char *challengecode);
qdq::CText GenerateHeartBeatMessage(int plattype);
