// ProcessCPluginStop: stops a C plugin's processes (or removes its module).
//
// An "app" is stopped through the process groups its starts left behind
// (plugin_procs), with every child in them: never by a process name, which
// any other program of the machine may carry. The described name rules
// (thunder stops "etm" and "vod_httpserver", b01 and m01 stop "b01"/"m01")
// name the programs of those plugins, which run in the plugin's own group.
#include <cstring>
#include <exception>
#include <string>

#include "common/abi_guard.h"
#include "common/log.h"
#include "plugin/plugin_log.h"
#include "plugin/plugin_paths.h"
#include "plugin/plugin_procs.h"
#include "plugin/shellsafe.h"

namespace {

using namespace qdq::plugin;

int stop_app(const char *name) {
    const int groups = stop_tracked(short_name(name));
    QDQ_LOG("ProcessCPluginStop: %d process group(s) of %s stopped", groups, name);
    // Substring tests, in this order; the module is a fixed name.
    if (std::strstr(name, "thunder") == nullptr &&
        (std::strstr(name, "b01") != nullptr || std::strstr(name, "m01") != nullptr))
        run_logged("cmdbuf:", "rmmod m01_b01.ko");
    return 0;
}

}  // namespace

extern "C" QDQ_API int ProcessCPluginStop(const char *name, const char *version, const char *type,
                                          const char *entryfile) {
    QDQ_LOG("ProcessCPluginStop start!");
    if (name == nullptr || type == nullptr || entryfile == nullptr) return -1;
    const char *slash = std::strrchr(entryfile, '/');
    const char *base = slash != nullptr ? slash + 1 : entryfile;
    return qdq::guard_entry("ProcessCPluginStop", -1, [&] {
        int rc = 0;
        if (std::strcmp(type, "ko") == 0) {
            // The module name reaches rmmod's command line.
            if (!is_plain(base, false)) {
                QDQ_LOG("ProcessCPluginStop: refused, unsafe module name");
                return -1;
            }
            rc = run_logged("cmdbuf:", std::string("rmmod ") + base);
        } else if (std::strcmp(type, "app") == 0) {
            rc = stop_app(name);  // the entry file plays no part
        }
        HgSavePluginProcessLog("Stop C Plugin success, name:%s, version:%s, status:Idle", name,
                               version != nullptr ? version : "");
        QDQ_LOG("ProcessCPluginStop end!ret:%d", rc);
        return rc;
    });
}

extern "C" QDQ_API int HgCPluginStopAll(void) {
    return qdq::guard_entry("HgCPluginStopAll", -1, [] {
        const int groups = qdq::plugin::stop_all_tracked();
        QDQ_LOG("HgCPluginStopAll: %d process group(s) stopped", groups);
        return groups;
    });
}
