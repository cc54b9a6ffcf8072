// The per-bundle uninstall flags kept in "/var/pluginuninstall.txt".
#include <cstdlib>

#include "common/log.h"
#include "qdquick/qdplatform.h"

namespace {
int g_uninstallflag[8];

struct FlagSlot {
    const char *bundle;
    int slot;
};
// Read in this order; slot 2 has no bundle and stays 0.
constexpr FlagSlot kSlots[] = {
    {"com.brevanta.varnelo.smartgateway.thunder", 0},  {"com.brevanta.varnelo.smartgateway.b01", 1},
    {"com.brevanta.varnelo.smartgateway.samba", 4},    {"com.brevanta.varnelo.smartgateway.dlna", 3},
    {"com.brevanta.varnelo.smartgateway.nas", 5},      {"com.brevanta.varnelo.smartgateway.ddns", 6},
    {"com.brevanta.varnelo.smartgateway.b01_osgi", 7},
};
}  // namespace

extern "C" QDQ_API int *HgGetPluginUnistallFlag(void) {
    for (int &flag : g_uninstallflag) flag = 0;
    for (const FlagSlot &s : kSlots) {
        // getcfgx writes up to QDP_CFGVALUE_SIZE bytes, whatever we read.
        char value[QDP_CFGVALUE_SIZE] = {0};
        getcfgx("/var/pluginuninstall.txt", s.bundle, value);
        value[sizeof value - 1] = '\0';
        g_uninstallflag[s.slot] = std::atoi(value);
    }
    return g_uninstallflag;
}
