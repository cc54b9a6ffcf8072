#include "jsonmsg/local_orders.h"

#include <cstring>

#include "common/log.h"
#include "jsonmsg/cmd_json.h"
#include "plugin/local_origin.h"
#include "qdquick/qdquick.h"

QDQ_API int gQuickLocalPluginOrders = 0;

namespace qdq {

namespace {

// The orders that download, start, stop or remove a plugin. "ListPlugin"
// and "Install_query" only read and stay open to local clients.
constexpr const char *kLifecycle[] = {"Install", "UnInstall", "Run", "Stop", "FactoryPlugin", "Install_cancel"};

bool is_lifecycle(const char *method) {
    for (const char *m : kLifecycle)
        if (std::strcmp(method, m) == 0) return true;
    return false;
}

}  // namespace

bool refuse_local_order(cJSON *object, const char *method, int plattype) {
    if (plattype != QDQ_PLAT_LOCALTCP && plattype != QDQ_PLAT_LOCALUDP) return false;
    if (!is_lifecycle(method)) return false;
    const bool install = std::strcmp(method, "Install") == 0;
    if (__atomic_load_n(&gQuickLocalPluginOrders, __ATOMIC_RELAXED) != 0) {
        if (install) plugin_mark_local_origin(cmd_text(object, "Plugin_Name"));
        return false;
    }
    QDQ_LOG("local plugin order %s refused: local plugin orders are not enabled", method);
    cmd_delete(object, {"RPCMethod", "Plugin_Name", "Version"});
    if (install) cmd_delete(object, {"Download_url", "Plugin_size", "OS", "upgrade_ID"});
    cmd_result(object, kResultLocalRefused);
    return true;
}

}  // namespace qdq
