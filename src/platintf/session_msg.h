// Builders of the Boot, Register and Heartbeat messages a platform session
// sends. Each prints its JSON object formatted (cJSON_Print) into out[cap]
// and returns 0, or -1 (out empty) when the text does not fit.
#pragma once

#include <cstddef>

// Sizes of the callers' buffers.
inline constexpr std::size_t kSessionMsgSize = 2000;   // Boot, Register
inline constexpr std::size_t kHeartbeatMsgSize = 512;  // Heartbeat

int GenerateBootMessage(int plattype, char *out, std::size_t cap = kSessionMsgSize);
int GenerateRegMessage(int plattype, const char *challengecode, char *out,
                       std::size_t cap = kSessionMsgSize);
// (The argument order differs from the other two on purpose: it is the
// established one.)
int GenerateHeartBeatMessage(char *out, int plattype, std::size_t cap = kHeartbeatMsgSize);
