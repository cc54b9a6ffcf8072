// The local request services bind their ports on the library's own
// threads, and a failed bind only ends that thread with a log line. Before
// starting them the daemon binds each port the way the library will, so
// that a port taken by another program is known, named and acted on.
#pragma once

#include <string>
#include <vector>

#include "config.h"

namespace qdd {

struct PortProblem {
    std::string service;   // "quick_install", "local_udp", "local_tcp"
    std::string protocol;  // "udp" or "tcp"
    unsigned port = 0;
    std::string reason;    // strerror text
    // "local TCP service, TCP port 18998: Address already in use"
    std::string text() const;
};

// Probes the ports of the services `c` enables; the ones that cannot be
// bound. Each probe socket is closed before returning.
std::vector<PortProblem> probe_local_ports(const Config &c);

// `c` without the services named in `problems` (degraded start).
void leave_out(Config &c, const std::vector<PortProblem> &problems);

}  // namespace qdd
