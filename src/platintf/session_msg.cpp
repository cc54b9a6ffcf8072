// Boot, Register and Heartbeat messages. Key order is the wire order; the
// Boot message carries "MAC" twice on purpose.
#include "platintf/session_msg.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "common/json.h"
#include "common/log.h"
#include "qdquick/qdplatform.h"

namespace {

using qdq::JsonPtr;

void add_str(cJSON *obj, const char *key, const char *value) {
    cJSON_AddItemToObject(obj, key, cJSON_CreateString(value ? value : ""));
}

// Upper-case MD5 of a + b joined without a separator.
std::string md5_of(const std::string &a, const std::string &b) {
    char digest[33];
    getmd5((a + b).c_str(), digest);
    return digest;
}

// A fresh DevRND token, kept in the manage record for the key check.
std::string new_devrnd() {
    char token[33];
    getrand(token);
    std::snprintf(manageplatinfo.devrnd, sizeof manageplatinfo.devrnd, "%s", token);
    return token;
}

qdq::CText finish(const cJSON *obj, const char *what) {
    qdq::CText text(cJSON_Print(obj));
    if (!text) QDQ_LOG("%s: message could not be printed, not sent", what);
    return text;
}

qdq::CText not_built(const char *what) {
    QDQ_LOG("%s: message could not be built, not sent", what);
    return nullptr;
}

}  // namespace

qdq::CText GenerateBootMessage(int plattype) {
    QDQ_LOG("GenerateBootMessage start!");
    try {
        const bool platform = plattype == QDQ_PLAT_MANAGE || plattype == QDQ_PLAT_PLUGIN;
        JsonPtr obj(cJSON_CreateObject());
        if (!obj) return not_built("GenerateBootMessage");
        add_str(obj.get(), "RPCMethod", platform ? "Boot" : "BootFirst");
        add_str(obj.get(), "Vendor", "quendara");
        add_str(obj.get(), "Model", deviceinfo.model);
        add_str(obj.get(), "FirmwareVer", deviceinfo.firmwarever);
        add_str(obj.get(), "HardwareVer", deviceinfo.hardwarever);
        add_str(obj.get(), "MAC", deviceinfo.mac);
        JsonPtr query(CreateQueryUpdateverReqjson());
        if (query) {
            const cJSON *child = cJSON_GetObjectItemCaseSensitive(query.get(), "childRouter");
            if (child != nullptr) cJSON_AddItemToObject(obj.get(), "ChildRouter", cJSON_Duplicate(child, 1));
        }
        add_str(obj.get(), "AreaCode", deviceinfo.areacode);
        add_str(obj.get(), "wevrinstatus", get_wevrin_status() == 1 ? "1" : "0");
        add_str(obj.get(), "MAC", deviceinfo.mac);
        if (plattype == QDQ_PLAT_MANAGE) {
            add_str(obj.get(), "DevRND", new_devrnd().c_str());
            add_str(obj.get(), "OsVer", "1.0");
        }
        add_str(obj.get(), "IPAddr", deviceinfo.ipaddr);
        if (plattype != QDQ_PLAT_PLUGIN) add_str(obj.get(), "PlatformID", "OSGI");
        if (platform) {
            std::memset(deviceinfo.loid, 0, sizeof deviceinfo.loid);
            GetLoidInfo(deviceinfo.loid);
            deviceinfo.loid[sizeof deviceinfo.loid - 1] = '\0';
            add_str(obj.get(), "LOID", deviceinfo.loid);
            char card[QDP_CARDNO_SIZE] = "";
            if (std::strcmp(deviceinfo.cardflag, "1") == 0) GetCardNo(card);
            card[sizeof card - 1] = '\0';
            add_str(obj.get(), "Card", card);
        }
        char br0ip[QDP_BR0IP_SIZE] = "";
        char wanlinkmode[QDP_WANLINKMODE_SIZE] = "";
        gghelper_opmode_repeatermode_get(br0ip, wanlinkmode);
        br0ip[sizeof br0ip - 1] = '\0';
        wanlinkmode[sizeof wanlinkmode - 1] = '\0';
        add_str(obj.get(), "Br0_IP", br0ip);
        add_str(obj.get(), "WanLinkMode", wanlinkmode);
        qdq::CText text = finish(obj.get(), "GenerateBootMessage");
        QDQ_LOG("GenerateBootMessage end");
        return text;
    } catch (const std::exception &) {
        return not_built("GenerateBootMessage");
    }
}

qdq::CText GenerateRegMessage(int plattype, const char *challengecode) {
    QDQ_LOG("GenerateRegMessage start!");
    try {
        JsonPtr obj(cJSON_CreateObject());
        if (!obj) return not_built("GenerateRegMessage");
        const char *method = plattype == QDQ_PLAT_CUBE ? "RegisterFirst"
                             : (plattype == QDQ_PLAT_MANAGE || plattype == QDQ_PLAT_PLUGIN) ? "Register"
                                                                                            : "";
        add_str(obj.get(), "RPCMethod", method);
        if (challengecode == nullptr) {
            QDQ_LOG("test1, challengecode null\n");
            challengecode = "";
        }
        QDQ_LOG("challengecode:%s,devsn:%s\n", challengecode, deviceinfo.devsn);
        add_str(obj.get(), "CheckSN", md5_of(challengecode, deviceinfo.devsn).c_str());
        if (plattype == QDQ_PLAT_CUBE || plattype == QDQ_PLAT_MANAGE) add_str(obj.get(), "MAC", deviceinfo.mac);
        if (plattype == QDQ_PLAT_MANAGE) {
            add_str(obj.get(), "UserID", md5_of(deviceinfo.devsn, deviceinfo.loid).c_str());
            add_str(obj.get(), "flag", std::to_string(deviceinfo.regtype).c_str());
            add_str(obj.get(), "DevRND", new_devrnd().c_str());
            if (manageplatinfo.bootflag == 1) add_str(obj.get(), "pppoename", deviceinfo.pppoename);
        }
        qdq::CText text = finish(obj.get(), "GenerateRegMessage");
        QDQ_LOG("GenerateRegMessage end");
        return text;
    } catch (const std::exception &) {
        return not_built("GenerateRegMessage");
    }
}

qdq::CText GenerateHeartBeatMessage(int plattype) {
    QDQ_LOG("GenerateHeartBeatMessage start! plattype:%d", plattype);
    try {
        JsonPtr obj(cJSON_CreateObject());
        if (!obj) return not_built("GenerateHeartBeatMessage");
        if (plattype == QDQ_PLAT_PLUGIN) {
            add_str(obj.get(), "RPCMethod", "Heartbeat");
            add_str(obj.get(), "IPAddr", deviceinfo.ipaddr);
        } else if (plattype == QDQ_PLAT_MANAGE) {
            add_str(obj.get(), "RPCMethod", "Hb");
            if (manageplatinfo.firsthb == 1) add_str(obj.get(), "IPAddr", deviceinfo.ipaddr);
            add_str(obj.get(), "FLAG", std::to_string(manageplatinfo.firsthb).c_str());
        }
        add_str(obj.get(), "MAC", deviceinfo.mac);
        qdq::CText text = finish(obj.get(), "GenerateHeartBeatMessage");
        QDQ_LOG("GenerateHeartBeatMessage end");
        return text;
    } catch (const std::exception &) {
        return not_built("GenerateHeartBeatMessage");
    }
}
