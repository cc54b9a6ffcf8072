// Filling the library's records from the configuration.
#pragma once

#include "config.h"
#include "qdquick/qdquick.h"

namespace qdd {

// deviceinfo and gQuickLogSize; call after initQdQuick.
void fill_device(const Config &c);
// Address, port and local port of a platform record. The cube connect wipes
// the manage record and the manage connect the plugin record, so these are
// filled again right before each connect.
void fill_platform(platinfo *record, const PlatformConfig &p);
// The local TCP service's port and switch live in the cube record.
void fill_local_service(const Config &c);

// "address:port" of a record, for the status file and output.
std::string record_address(const platinfo *record);

}  // namespace qdd
