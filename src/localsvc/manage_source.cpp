// The manage platform's local UDP port serves the manage platform only:
// its orders ("RequestPlug-in" names the plugin platform to connect to) and
// its heartbeat answers come from the address the session talks to.
#include <arpa/inet.h>

#include <cstdio>

#include "common/log.h"
#include "localsvc/quickinstall.h"

namespace qdq {

namespace {

// The record's address fields are written by the session threads without a
// lock: read a bounded copy.
template <std::size_t N>
bool same_address(const char (&field)[N], const in_addr &from) {
    char text[N];
    std::snprintf(text, sizeof text, "%.*s", static_cast<int>(N - 1), field);
    in_addr addr;
    return inet_pton(AF_INET, text, &addr) == 1 && addr.s_addr == from.s_addr;
}

unsigned g_dropped = 0;  // a restarted service may overlap its predecessor

}  // namespace

bool from_manage_platform(const sockaddr_in &from) {
    if (same_address(manageplatinfo.curip, from.sin_addr) || same_address(manageplatinfo.heartbeatip, from.sin_addr))
        return true;
    // One line for the first drop and then one per hundred: a flood cannot
    // fill the log.
    const unsigned dropped = __atomic_add_fetch(&g_dropped, 1, __ATOMIC_RELAXED);
    if (dropped % 100 == 1) {
        char addr[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &from.sin_addr, addr, sizeof addr);
        QDQ_LOG("manage local port: datagram from %s:%d dropped, not the manage platform (%u dropped)", addr,
                static_cast<int>(ntohs(from.sin_port)), dropped);
    }
    return false;
}

}  // namespace qdq
