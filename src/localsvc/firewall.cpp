// Firewall rules for the local request ports.
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "localsvc/quickinstall.h"
#include "qdquick/qdplatform.h"

QDQ_API char gQuickLanInterface[16] = "";

namespace qdq {

namespace {

// An interface name as iptables takes it: letters, digits, '.', '_', '-'
// and a trailing '+' (a prefix match); never an option.
bool acceptable_interface(const char *name) {
    if (name[0] == '-' || name[0] == '\0') return false;
    for (const char *p = name; *p != '\0'; ++p) {
        const char c = *p;
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                           c == '_' || c == '-';
        if (!plain && !(c == '+' && p[1] == '\0')) return false;
    }
    return true;
}

}  // namespace

// The rule is deleted first so that re-opening a port never stacks copies;
// it is never removed otherwise. Only fixed words, a number and a checked
// interface name reach iptables, through an argument vector.
void open_firewall_port(const char *proto, unsigned port) {
    char text[12];
    std::snprintf(text, sizeof text, "%u", port);
    char ifname[sizeof gQuickLanInterface];
    std::snprintf(ifname, sizeof ifname, "%.*s", static_cast<int>(sizeof ifname - 1), gQuickLanInterface);
    RunSystemCmd(nullptr, "iptables", "-D", "INPUT", "-p", proto, "--dport", text, "-j", "ACCEPT", "");
    if (ifname[0] == '\0') {
        RunSystemCmd(nullptr, "iptables", "-I", "INPUT", "1", "-p", proto, "--dport", text, "-j", "ACCEPT", "");
        return;
    }
    // The unrestricted rule of an earlier run is gone (above); a bad name
    // leaves the port closed rather than open everywhere.
    if (!acceptable_interface(ifname)) {
        QDQ_LOG("firewall: interface name refused, %s port %u not opened", proto, port);
        return;
    }
    RunSystemCmd(nullptr, "iptables", "-D", "INPUT", "-i", ifname, "-p", proto, "--dport", text, "-j", "ACCEPT", "");
    RunSystemCmd(nullptr, "iptables", "-I", "INPUT", "1", "-i", ifname, "-p", proto, "--dport", text, "-j", "ACCEPT",
                 "");
}

}  // namespace qdq
