// The manage platform's authenticated orders: "RequestPlug-in" (use another
// plugin-platform server), "RequestDistri" (move to another manage or cube
// server) and the plain "Disconnect".
#include <cstdio>
#include <cstring>

#include "common/host.h"
#include "common/log.h"
#include "jsonmsg/cmd_json.h"
#include "jsonmsg/processjsonmsg.h"
#include "platintf/plat_values.h"

namespace {

// Random texts are 32 digits; getrand writes them with their NUL.
constexpr std::size_t kRandSize = 33;
constexpr std::size_t kDigestSize = 33;

// Checks "Key" against MD5(devrnd followed by devsn) as upper-case digits;
// `digest` receives the expected key.
bool key_matches(const char *key, char (&digest)[kDigestSize]) {
    char joined[sizeof manageplatinfo.devrnd + sizeof deviceinfo.devsn];
    std::snprintf(joined, sizeof joined, "%.*s%.*s", static_cast<int>(sizeof manageplatinfo.devrnd - 1),
                  manageplatinfo.devrnd, static_cast<int>(sizeof deviceinfo.devsn - 1), deviceinfo.devsn);
    QDQ_LOG("devran:%s\tdevsn:%s\n", manageplatinfo.devrnd, deviceinfo.devsn);
    getmd5(joined, digest);
    QDQ_LOG("device before md5:%s\t\ndevice after md5:%s\n", joined, digest);
    QDQ_LOG("plat check md5:%s\n", key);
    if (std::strcmp(key, digest) == 0) return true;
    QDQ_LOG("key is error!\n");
    return false;
}

// Replaces devrnd by a fresh random and hands it to the platform, which
// signs its next order with it.
void rotate_devrnd(cJSON *object) {
    char rnd[kRandSize] = "";
    getrand(rnd);
    qdq::copy_field(manageplatinfo.devrnd, sizeof manageplatinfo.devrnd, rnd);
    qdq::cmd_set_text(object, "DevRND", manageplatinfo.devrnd);
}

// "ServerAddr" into the record's address, when it is a host; anything else
// leaves the address as it was.
bool take_address(const cJSON *object, platinfo &rec) {
    const char *addr = qdq::cmd_text(object, "ServerAddr");
    if (cJSON_GetObjectItemCaseSensitive(object, "ServerAddr") == nullptr) return false;
    if (!qdq::acceptable_host(addr, sizeof rec.MgtURL)) {
        QDQ_LOG("ServerAddr refused: not a host, the configured one stays");
        return false;
    }
    const bool changed = std::strncmp(addr, rec.MgtURL, sizeof rec.MgtURL) != 0;
    qdq::copy_field(rec.MgtURL, sizeof rec.MgtURL, addr);
    return changed;
}

// "ServerPort" (decimal text or number, 1-65535) into the record's port.
bool take_port(const cJSON *object, platinfo &rec) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, "ServerPort");
    if (item == nullptr) return false;
    unsigned port = 0;
    if (!qdq::acceptable_port(item, port)) {
        QDQ_LOG("ServerPort refused: not a port, the configured one stays");
        return false;
    }
    const bool changed = port != rec.port;
    rec.port = port;
    return changed;
}

// The common end of a keyed order: a success hands out a fresh random, a
// failure has the manage session rebuilt soon.
int finish_order(cJSON *object, int ret, const char *name) {
    qdq::cmd_result(object, ret);
    if (ret == 0)
        rotate_devrnd(object);
    else
        qdq::connect_soon(qdq::kTimerConnectManage, 2);
    QDQ_LOG("%s end ,ret=%d!\n", name, ret);
    return ret;
}

}  // namespace

int HGProcessRequestPluginMsg(cJSON *object) {
    QDQ_LOG("HGProcessRequestPluginMsg start!\n");
    const auto consume = [object] { qdq::cmd_delete(object, {"RPCMethod", "Key", "ServerAddr", "ServerPort"}); };
    // Busy or repeated: the platform sees success, nothing changes.
    const auto idle_success = [&] {
        consume();
        qdq::cmd_result(object, 0);
        qdq::cmd_set_text(object, "DevRND", manageplatinfo.devrnd);
        return -1;
    };
    if (srvreplyflag != 0) {
        QDQ_LOG("HG is already process Request Plugin Msg!\n");
        return idle_success();
    }
    const cJSON *key_item = cJSON_GetObjectItemCaseSensitive(object, "Key");
    const char *key = qdq::cmd_text(object, "Key");
    int ret = -1;
    char digest[kDigestSize] = "";
    if (key_item == nullptr) {
        QDQ_LOG("can not find Key object!\n");
    } else if (key != nullptr && std::strncmp(key, manageplatinfo.reqkey, sizeof manageplatinfo.reqkey) == 0) {
        QDQ_LOG("The same RequestPlugin!\n");
        return idle_success();
    } else if (key != nullptr && key_matches(key, digest)) {
        ret = 0;
        qdq::copy_field(manageplatinfo.reqkey, sizeof manageplatinfo.reqkey, digest);
        bool changed = take_address(object, pluginplatinfo);
        changed = take_port(object, pluginplatinfo) || changed;
        AppMgrLogLine(qdq::kLogTrace, "*******plugin regist status: %d,plugform change =%d\n",
                      pluginplatinfo.regflag, changed ? 1 : 0);
        manageplatinfo.nexttimer = qdq::kTimerConnectPlugin;
    } else if (key == nullptr) {
        QDQ_LOG("key is error!\n");
    }
    consume();
    return finish_order(object, ret, "HGProcessRequestPluginMsg");
}

int HGProcessRequestDistri(cJSON *object) {
    QDQ_LOG("HGProcessRequestDistri start!\n");
    const auto consume = [object] {
        qdq::cmd_delete(object, {"RPCMethod", "Key", "mode", "ServerAddr", "ServerPort"});
    };
    if (srvreplyflag != 0) {
        // Unlike "RequestPlug-in", the busy answer here is a failure.
        QDQ_LOG("HG is already process Request Distri msg!\n");
        consume();
        qdq::cmd_result(object, -1);
        qdq::cmd_set_text(object, "DevRND", manageplatinfo.devrnd);
        return -1;
    }
    const char *key = qdq::cmd_text(object, "Key");
    int ret = -1;
    char digest[kDigestSize] = "";
    if (cJSON_GetObjectItemCaseSensitive(object, "Key") == nullptr) {
        QDQ_LOG("can not find Key object!\n");
    } else if (key == nullptr) {
        QDQ_LOG("key is error!\n");
    } else if (key_matches(key, digest)) {
        ret = 0;
        const cJSON *mode_item = cJSON_GetObjectItemCaseSensitive(object, "mode");
        const int mode = mode_item ? GetIntValueFromJson(mode_item) : 0;
        // mode 1 moves the manage platform, anything else the cube record;
        // a mode of 2 or more still reports platform 2 and reconnects the
        // manage platform.
        platinfo &target = mode == 1 ? manageplatinfo : cubeplatinfo;
        take_address(object, target);
        take_port(object, target);
        if (quickevcb.platdistri != nullptr) quickevcb.platdistri(mode != 0 ? 2 : 1, &target);
        manageplatinfo.nexttimer = static_cast<signed char>(mode != 0 ? qdq::kTimerConnectManage : qdq::kTimerConnectCube);
    }
    consume();
    return finish_order(object, ret, "HGProcessRequestDistri");
}

void HGProcessRequestPluginDis(cJSON *object) {
    qdq::cmd_delete(object, {"RPCMethod"});
    qdq::cmd_result(object, 0);
}
