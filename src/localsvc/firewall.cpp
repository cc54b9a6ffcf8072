// Firewall rules for the local request ports.
#include <cstdio>

#include "localsvc/quickinstall.h"
#include "qdquick/qdplatform.h"

namespace qdq {

// The rule is deleted first so that re-opening a port never stacks copies;
// it is never removed otherwise. Only fixed words and a number reach
// iptables, through an argument vector.
void open_firewall_port(const char *proto, unsigned port) {
    char text[12];
    std::snprintf(text, sizeof text, "%u", port);
    RunSystemCmd(nullptr, "iptables", "-D", "INPUT", "-p", proto, "--dport", text, "-j", "ACCEPT", "");
    RunSystemCmd(nullptr, "iptables", "-I", "INPUT", "1", "-p", proto, "--dport", text, "-j", "ACCEPT",
                 "");
}

}  // namespace qdq
