// Quick-install requests (slot 3): the decoded text of a datagram to port
// 7998, a JSON object {"Cmd": ...}. The answer is JSON text too:
//   "Discover" -> {"Result":0,"SN","MAC","Model","FirmwareVer",...,"CubeRegistered"}
//   "Status"   -> {"Result":0,"Platforms":{"cube":{...},"manage":{...},"plugin":{...}}}
//   anything else -> {"Result":-1,"Error":"..."}
#pragma once

#include <cstddef>

namespace qdd {

// Writes at most cap - 1 characters and a NUL into reply.
void answer_quick_install(char *reply, std::size_t cap, const char *request);

}  // namespace qdd
