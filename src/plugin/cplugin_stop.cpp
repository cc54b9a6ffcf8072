// ProcessCPluginStop: stops a C plugin's process (or removes its module).
#include <cstring>
#include <exception>
#include <string>

#include "common/log.h"
#include "plugin/plugin_log.h"
#include "plugin/plugin_paths.h"
#include "plugin/shellsafe.h"
#include "qdquick/qdplatform.h"

namespace {

void stop_process(const char *process) { stoppid(process, "/var/stopcplugin", 15); }

int stop_plugin(const char *name, const char *type, const char *base) {
    if (std::strcmp(type, "ko") == 0) return qdq::plugin::run_logged("cmdbuf:", std::string("rmmod ") + base);
    if (std::strcmp(type, "app") != 0) return 0;
    // Substring tests, in this order: some plugins run under other names.
    if (std::strstr(name, "thunder") != nullptr) {
        stop_process("etm");
        qdq::plugin::run_logged("cmdbuf:", "killall vod_httpserver");
    } else if (std::strstr(name, "b01") != nullptr) {
        stop_process("b01");
        qdq::plugin::run_logged("cmdbuf:", "rmmod m01_b01.ko");
    } else if (std::strstr(name, "m01") != nullptr) {
        stop_process("m01");
        qdq::plugin::run_logged("cmdbuf:", "rmmod m01_b01.ko");
    } else {
        stop_process(base);
    }
    return 0;
}

}  // namespace

extern "C" QDQ_API int ProcessCPluginStop(const char *name, const char *version, const char *type,
                                          const char *entryfile) {
    QDQ_LOG("ProcessCPluginStop start!");
    if (name == nullptr || type == nullptr || entryfile == nullptr) return -1;
    const char *slash = std::strrchr(entryfile, '/');
    const char *base = slash != nullptr ? slash + 1 : entryfile;
    // The module or process name reaches rmmod's command line.
    if (!qdq::plugin::is_plain(base, false)) {
        QDQ_LOG("ProcessCPluginStop: refused, unsafe entry file");
        return -1;
    }
    int rc = -1;
    try {
        rc = stop_plugin(name, type, base);
    } catch (const std::exception &e) {
        QDQ_LOG("ProcessCPluginStop: %s", e.what());
        return -1;
    }
    HgSavePluginProcessLog("Stop C Plugin success, name:%s, version:%s, status:Idle", name,
                           version != nullptr ? version : "");
    QDQ_LOG("ProcessCPluginStop end!ret:%d", rc);
    return rc;
}
