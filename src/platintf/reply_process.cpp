// What a platform's answers to Boot, Register and Heartbeat change: the
// records, the server addresses, the configuration, the status word, and
// the timers that carry the session on.
#include "platintf/reply_process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "common/host.h"
#include "common/json.h"
#include "common/log.h"
#include "common/paths.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/plat_values.h"
#include "platintf/push.h"
#include "platintf/session.h"
#include "qdquick/qdplatform.h"

namespace {

using qdq::JsonPtr;

constexpr const char *kQuickConf = "/etc/config/system/quickconf.conf";

// Parses a reply and finds its "Result"; logs the failures the same way for
// every reply type. Returns null when the reply is unusable.
JsonPtr parse_reply(const char *reply, const cJSON **result) {
    const char *end = nullptr;
    JsonPtr obj(cJSON_ParseWithOpts(reply ? reply : "", &end, 0));
    if (!obj) {
        QDQ_LOG("Error before: [%s]", end ? end : "");
        return nullptr;
    }
    *result = cJSON_GetObjectItemCaseSensitive(obj.get(), "Result");
    if (*result == nullptr) {
        QDQ_LOG("can not find Result object!");
        return nullptr;
    }
    return obj;
}

// An interval below one second would stop the heartbeats for good (a
// timer of 0 or fewer seconds is never armed): the default is taken instead.
void take_interval(const cJSON *obj, platinfo *rec) {
    const cJSON *interval = cJSON_GetObjectItemCaseSensitive(obj, "Interval");
    if (interval == nullptr) return;
    const int seconds = GetIntValueFromJson(interval);
    if (seconds >= 1) {
        rec->interval = static_cast<unsigned>(seconds);
        return;
    }
    rec->interval = qdq::default_interval(rec);
    QDQ_LOG("Interval %d refused, default %u taken", seconds, rec->interval);
}

// The refused value itself is not logged: it may hold control characters.
void refused(const char *key) { QDQ_LOG("%s refused: not an acceptable address or port, the configured one stays", key); }

// A string value, or "" for anything else.
const char *text_of(const cJSON *item) { return cJSON_IsString(item) ? item->valuestring : ""; }

enum class Split { refused, host, host_port };

// Splits "host[:port]" at its first colon; the host must fit a field of
// `cap` bytes and the port lie in 1-65535. `port` is set only with a port.
Split split_host_port(const char *value, std::size_t cap, std::string &host, unsigned &port) {
    const char *colon = std::strchr(value, ':');
    host.assign(value, colon != nullptr ? static_cast<size_t>(colon - value) : std::strlen(value));
    if (!qdq::acceptable_host(host.c_str(), cap)) return Split::refused;
    if (colon == nullptr) return Split::host;
    return qdq::acceptable_port_text(colon + 1, port) ? Split::host_port : Split::refused;
}

void take_server(const cJSON *obj, const char *key, serveraddr &server, const char *what) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, key);
    if (item == nullptr) return;
    std::string host;
    unsigned port = server.port;
    const Split split = split_host_port(text_of(item), sizeof server.addr, host, port);
    if (split == Split::refused) return refused(key);
    if (split == Split::host_port) server.port = port;
    std::snprintf(server.addr, sizeof server.addr, "%s", host.c_str());
    QDQ_LOG("%s ip:%s  %s port:%d", what, server.addr, what, server.port);
}

void take_heartbeat_address(const cJSON *obj, platinfo *rec) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, "HeartbeatIPAddr");
    if (item == nullptr) return;
    std::string host;
    unsigned port = rec->port;
    if (split_host_port(text_of(item), sizeof rec->heartbeatip, host, port) == Split::refused)
        return refused("HeartbeatIPAddr");
    std::memset(rec->heartbeatip, 0, sizeof rec->heartbeatip);
    rec->heartbeatport = 0;
    std::snprintf(rec->heartbeatip, sizeof rec->heartbeatip, "%s", host.c_str());
    rec->heartbeatport = port;
    QDQ_LOG("heartbeatip:%s\theartbeatport:%d", rec->heartbeatip, rec->heartbeatport);
}

// "PluginServer": the plugin platform moves; it is connected again whether
// or not its address changed.
void take_plugin_server(const cJSON *obj) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, "PluginServer");
    if (item == nullptr) return;
    platinfo &plug = pluginplatinfo;
    std::string host;
    unsigned port = plug.port;
    int change = 0;
    const Split split = split_host_port(text_of(item), sizeof plug.MgtURL, host, port);
    if (split == Split::refused) return refused("PluginServer");
    if (split == Split::host_port) {
        if (std::strncmp(host.c_str(), plug.MgtURL, host.size()) != 0) change = 1;
        if (port != plug.port) change = 1;
        plug.port = port;
    } else if (host != plug.MgtURL) {
        change = 1;
    }
    std::memset(plug.MgtURL, 0, sizeof plug.MgtURL);
    std::snprintf(plug.MgtURL, sizeof plug.MgtURL, "%s", host.c_str());
    QDQ_LOG("*******plugin regist status: %d,plugform change =%d\n", plug.regflag, change);
    manageplatinfo.nexttimer = qdq::kTimerConnectPlugin;
    QDQ_LOG("pluginserver ip:%s  pluginserver port:%d", plug.MgtURL, plug.port);
    QDQ_LOG("set %d timer, start connect plugin platform", qdq::kTimerConnectPlugin);
    AppTimerCreate(3, qdq::kTimerConnectPlugin, 0, QdTimeoutHandle);
}

// Result 2: the manage platform moves; the configuration is written only
// when a value changed, and never with a value that was refused.
void take_manage_redirect(const cJSON *obj) {
    const cJSON *addr = cJSON_GetObjectItemCaseSensitive(obj, "ServerAddr");
    if (addr != nullptr) {
        const char *value = text_of(addr);
        if (!qdq::acceptable_host(value, sizeof manageplatinfo.MgtURL)) {
            refused("ServerAddr");
        } else {
            QDQ_LOG("manageplaturl:%s\n", value);
            if (std::strcmp(value, manageplatinfo.MgtURL) != 0) {
                std::snprintf(manageplatinfo.MgtURL, sizeof manageplatinfo.MgtURL, "%s", value);
                setcfgx(kQuickConf, "manageplataddr", value);
            }
        }
    }
    const cJSON *port = cJSON_GetObjectItemCaseSensitive(obj, "ServerPort");
    unsigned number = 0;
    if (port != nullptr && !qdq::acceptable_port(port, number)) {
        refused("ServerPort");
    } else if (port != nullptr) {
        const std::string value = std::to_string(number);
        QDQ_LOG("manageplatport:%s\n", value.c_str());
        if (number != manageplatinfo.port) {
            manageplatinfo.port = number;
            setcfgx(kQuickConf, "manageplatport", value.c_str());
        }
    }
}

}  // namespace

void HgSetPlateStatus(int plattype, const char *status, int result) {
    if (status == nullptr) return;
    QDQ_LOG("HgSetPlateStatus start! plattype:%d\tstatus:%s    result:%d", plattype, status, result);
    platinfo *rec = getPlatInfo(plattype);
    if (rec == nullptr) {
        QDQ_LOG("platinfo is NULL");
        return;
    }
    if (std::strcmp(rec->status, status) == 0) return;
    std::memset(rec->status, 0, sizeof rec->status);
    std::snprintf(rec->status, sizeof rec->status, "%s", status);
    if (quickevcb.platstatus != nullptr) quickevcb.platstatus(plattype, rec->status, result);
}

int ProcessBootReply(const char *reply, int plattype) {
    QDQ_LOG("ProcessBootReply start,plattype=%d!", plattype);
    platinfo *rec = getPlatInfo(plattype);
    if (rec == nullptr) {
        QDQ_LOG("platinfo is NULL");
        return kSessionNoReply;
    }
    const cJSON *result_item = nullptr;
    JsonPtr obj = parse_reply(reply, &result_item);
    if (!obj) return kSessionNoReply;
    take_interval(obj.get(), rec);
    int result = GetIntValueFromJson(result_item);
    QDQ_LOG("ProcessBootReply result:%d", result);
    if (result == 0) {
        const cJSON *challenge = cJSON_GetObjectItemCaseSensitive(obj.get(), "ChallengeCode");
        if (challenge == nullptr) {
            QDQ_LOG("can not find ChallengeCode object!");
            return 0;
        }
        if (plattype == QDQ_PLAT_MANAGE) {
            const cJSON *flag = cJSON_GetObjectItemCaseSensitive(obj.get(), "flag");
            if (flag != nullptr) {
                rec->bootflag = static_cast<unsigned>(GetIntValueFromJson(flag));
                QDQ_LOG("ProcessBootReply flag:%d", rec->bootflag);
            }
        }
        std::snprintf(rec->challengecode, sizeof rec->challengecode, "%s", text_of(challenge));
        QDQ_LOG("ChallengeCode %s!", rec->challengecode);
    }
    return result;
}

int ProcessRegReply(const char *reply, platinfo *rec) {
    QDQ_LOG("ProcessRegReply start!");
    if (rec == nullptr) return kSessionNoReply;
    const cJSON *result_item = nullptr;
    JsonPtr obj = parse_reply(reply, &result_item);
    if (!obj) return kSessionNoReply;
    int result = GetIntValueFromJson(result_item);
    take_interval(obj.get(), rec);
    take_heartbeat_address(obj.get(), rec);
    take_server(obj.get(), "UPDATEServer", updateserver, "updateserver");
    take_server(obj.get(), "MessageServer", messageserver, "messageserver");
    take_plugin_server(obj.get());
    if (result == 2) take_manage_redirect(obj.get());
    QDQ_LOG("ProcessRegReply start! return %d", result);
    return result;
}

int record_plat_heartbeat_time(int plattype) {
    const char *file = plattype == QDQ_PLAT_MANAGE   ? "/var/manage_heart_beat_time_file"
                       : plattype == QDQ_PLAT_PLUGIN ? "/var/plug_heart_beat_time_file"
                                                     : nullptr;
    if (file == nullptr) return 0;  // nothing to record for other platforms
    char cmd[512];
    std::snprintf(cmd, sizeof cmd, "echo %u > %s", static_cast<unsigned>(time(nullptr)), qdq::path(file).c_str());
    return safeSystem(cmd);
}

int ProcessHeartBeatReply(const char *reply, int plattype) {
    if (plattype != QDQ_PLAT_MANAGE && plattype != QDQ_PLAT_PLUGIN) {
        QDQ_LOG("serverinfo is NULL, return!\n");
        return -1;
    }
    const bool manage = plattype == QDQ_PLAT_MANAGE;
    platinfo &rec = manage ? manageplatinfo : pluginplatinfo;
    QDQ_LOG(manage ? "ProcessHeartBeatReply start!plattype:mang" : "ProcessHeartBeatReply start!plattype:plug");
    int result = -1;
    if (reply != nullptr) {
        AppTimerDestory(manage ? qdq::kTimerManageHbTimeout : qdq::kTimerPluginHbTimeout);
        const cJSON *result_item = nullptr;
        JsonPtr obj = parse_reply(reply, &result_item);
        if (obj) {
            result = GetIntValueFromJson(result_item);
            take_interval(obj.get(), &rec);
        }
    } else {
        QDQ_LOG("heartbeat timeout!");
    }

    if (result == -1 && manage) {
        HgSetPlateStatus(plattype, "try_connect_failed", result);
        if (rec.hbfailnum++ < 2) {
            AppMgrLogLine(qdq::kLogTrace, "MANAGE heartbeat timeout!");
            AppTimerCreate(1, qdq::kTimerManageHeartbeat, 0, QdTimeoutHandle);
        } else {
            rec.hbfailnum = 0;  // the third failure in a row: connect anew
            qdq::connect_soon(qdq::kTimerConnectManage, 1);
        }
        QDQ_LOG("heartbeat num:%d", rec.hbfailnum);
    } else if (result == -1) {
        HgSetPlateStatus(plattype, "disconnect", result);
        AppTimerCreate(2, qdq::kTimerPluginDisconnect, 0, QdTimeoutHandle);
        qdq::connect_soon(qdq::kTimerConnectPlugin, 5);
        QDQ_LOG("v******************PLUGINPLAT_DISCONNECT_HANDLE******");
        QDQ_LOG("v******************PLUGINPLAT_BOOT_HANDLE**********");
    } else if (result == -3 || result == -5) {
        qdq::connect_soon(qdq::kTimerConnectManage, 1);
    } else if (result == -6 && !manage) {
        qdq::connect_soon(qdq::kTimerConnectPlugin, 1);
    } else if (result >= 0) {
        HgSetPlateStatus(plattype, "wait_heatbeat", result);
        rec.hbfailnum = 0;
        if (manage && rec.firsthb == 1 && result == 0) rec.firsthb = 0;
        record_plat_heartbeat_time(plattype);
        AppTimerCreate(static_cast<int>(rec.interval),
                       manage ? qdq::kTimerManageHeartbeat : qdq::kTimerPluginHeartbeat, 0, QdTimeoutHandle);
    }
    // Any other negative answer stops this platform's heartbeat cycle until
    // something else connects it again.
    QDQ_LOG("ProcessHeartBeatReply end! return %d\n", result);
    return result;
}

void *PorcessEventInform(void *event) {
    QDQ_LOG("PorcessEventInform start");
    // The thread owns the heap copy its starter made (no shared buffer that
    // the starter could free under it).
    qdq::CText text(static_cast<char *>(event));
    if (text) SendPushMessage(text.get(), nullptr);
    return nullptr;
}
