// initQdQuick: the host's first call.
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "common/host.h"
#include "common/log.h"

quickevcb_t quickevcb;

extern "C" QDQ_API int initQdQuick(const void *callbacks) {
    if (callbacks == nullptr) return 0;
    std::memcpy(&quickevcb, callbacks, sizeof quickevcb);
    std::memset(&cubeplatinfo, 0, sizeof cubeplatinfo);
    std::memset(&manageplatinfo, 0, sizeof manageplatinfo);
    std::memset(&pluginplatinfo, 0, sizeof pluginplatinfo);
    std::memset(&messageserver, 0, sizeof messageserver);
    // log_mutex is statically initialised (lines may be logged before this
    // call); re-initialising a mutex another thread may hold is undefined.
    AppInitTimerModule();
    for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo})
        std::snprintf(p->status, sizeof p->status, "%s", "unconfigured");
    return 0;
}
