// Checks of the addresses, ports and intervals a platform hands out before
// they reach a record, the resolver or the configuration file. A refused
// value leaves the configured one in place.
#pragma once

#include <cjson/cJSON.h>

#include <cstddef>

#include "qdquick/qdquick.h"

namespace qdq {

// A host name or IPv4 literal (letters, digits, '.', '-', '_', starting
// with a letter or digit), an IPv6 literal, or an IPv6 literal in brackets;
// shorter than `cap` (the field it is stored in) so that it is never cut.
bool acceptable_host(const char *text, std::size_t cap);

// A port 1-65535 given as a whole JSON number or as decimal digits. True
// and `port` set when acceptable; `port` untouched otherwise.
bool acceptable_port(const cJSON *item, unsigned &port);
bool acceptable_port_text(const char *text, unsigned &port);

// The heartbeat interval a record uses when a platform names none that
// works: 20 s for the plugin platform, 60 s for the others.
unsigned default_interval(const platinfo *rec);

}  // namespace qdq
