// A platform moved the gateway to another cube or manage platform server
// (slot 2): the new address goes into the configuration file, so that the
// next start uses it too.
#pragma once

#include <string>

namespace qdd {

// plattype 1 cube, 2 manage. Rewrites "platforms.<name>.address" and
// ".port" in the file at `path`, keeping everything else; false on failure.
bool record_platform_address(const std::string &path, int plattype, const std::string &address,
                             unsigned port);

}  // namespace qdd
