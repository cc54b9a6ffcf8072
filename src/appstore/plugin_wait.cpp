// Waiting, a few seconds at most, for the plugin platform to register after
// the store pointed the gateway at it.
#include "common/clock.h"
#include "common/log.h"
#include "qdquick/qdquick.h"

namespace {

constexpr int kWaitRounds = 5;

// The flag is written by the plugin session's thread; read it whole.
int plugin_regflag() { return __atomic_load_n(&pluginplatinfo.regflag, __ATOMIC_RELAXED); }

void wait_for_plugin_registration() {
    int count = 0;
    while (count < kWaitRounds && plugin_regflag() == 0) {
        qdq::sleep_for(1);
        ++count;
    }
    QDQ_LOG("count:%d\tpluginplatinfo.regflag:%d", count, plugin_regflag());
}

}  // namespace

extern "C" QDQ_API int AppStoreReportRequestPlugin(void) {
    QDQ_LOG("AppStoreReportRequestPlugin start");
    wait_for_plugin_registration();
    SendRequestPluginToWeb();
    return 0;
}

extern "C" QDQ_API int AppStoreConnectPluginPlat(void) {
    if (pluginplatinfo.MgtURL[0] == '\0') {
        QDQ_LOG("###app store:pluginplatinfo.MgtURL is null!");
    } else {
        QDQ_LOG("AppStoreConnectPluginPlat start, pluginplatinfo.regflag:%d", plugin_regflag());
        wait_for_plugin_registration();
    }
    SendPluginRespInfoToWeb();
    return 0;
}
