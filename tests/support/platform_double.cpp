#include "platform_double.h"

#include <cjson/cJSON.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "qdquick/qdplatform.h"

namespace qdq_test {

PlatformDouble &platform() {
    static PlatformDouble p;
    return p;
}

void PlatformDouble::reset() {
    std::lock_guard<std::mutex> lock(mu);
    loid = "LOID0001";
    cardno = "CARD42";
    wevrin = 0;
    br0ip = "192.168.1.1";
    wanlinkmode = "1";
    child_router_json.clear();
    uci_value = "1";
    calls.clear();
    setcfg.clear();
    timer_ticks = 0;
    stored_token.clear();
    store_replies.clear();
    store_requests.clear();
}

void PlatformDouble::record(const std::string &line) {
    std::lock_guard<std::mutex> lock(mu);
    calls.push_back(line);
}

std::vector<std::string> PlatformDouble::calls_named(const std::string &name) {
    std::lock_guard<std::mutex> lock(mu);
    std::vector<std::string> out;
    for (const auto &c : calls)
        if (c == name || c.rfind(name + " ", 0) == 0) out.push_back(c);
    return out;
}

}  // namespace qdq_test

using qdq_test::platform;

namespace {
void copy_out(char *dst, size_t cap, const std::string &src) {
    if (dst != nullptr && cap > 0) snprintf(dst, cap, "%s", src.c_str());
}
}  // namespace

extern "C" {

int GetLoidInfo(char *loid) {
    platform().record("GetLoidInfo");
    std::lock_guard<std::mutex> lock(platform().mu);
    copy_out(loid, QDP_LOID_SIZE, platform().loid);
    return 0;
}

int GetCardNo(char *cardno) {
    platform().record("GetCardNo");
    std::lock_guard<std::mutex> lock(platform().mu);
    copy_out(cardno, QDP_CARDNO_SIZE, platform().cardno);
    return 0;
}

int get_wevrin_status(void) {
    platform().record("get_wevrin_status");
    return platform().wevrin;
}

int gghelper_opmode_repeatermode_get(char *br0ip, char *wanlinkmode) {
    platform().record("gghelper_opmode_repeatermode_get");
    std::lock_guard<std::mutex> lock(platform().mu);
    copy_out(br0ip, QDP_BR0IP_SIZE, platform().br0ip);
    copy_out(wanlinkmode, QDP_WANLINKMODE_SIZE, platform().wanlinkmode);
    return 0;
}

struct cJSON *CreateQueryUpdateverReqjson(void) {
    platform().record("CreateQueryUpdateverReqjson");
    std::lock_guard<std::mutex> lock(platform().mu);
    if (platform().child_router_json.empty()) return nullptr;
    return cJSON_Parse(platform().child_router_json.c_str());
}

int setcfgx(const char *file, const char *key, const char *value) {
    std::string line = std::string(file ? file : "") + " " + (key ? key : "") + " " + (value ? value : "");
    platform().record("setcfgx " + line);
    std::lock_guard<std::mutex> lock(platform().mu);
    platform().setcfg.push_back(line);
    return 0;
}

int getcfgx(const char *file, const char *key, char *value) {
    platform().record(std::string("getcfgx ") + (file ? file : "") + " " + (key ? key : ""));
    if (value) value[0] = '\0';
    return -1;
}

int getUciOptionValue(const char *package, const char *section, const char *option, char *value) {
    platform().record(std::string("getUciOptionValue ") + package + " " + section + " " + option);
    std::lock_guard<std::mutex> lock(platform().mu);
    copy_out(value, QDP_CFGVALUE_SIZE, platform().uci_value);
    return 0;
}

int RunSystemCmd(const char *outfile, ...) {
    std::string line = "RunSystemCmd";
    (void)outfile;
    va_list ap;
    va_start(ap, outfile);
    for (int i = 0; i < 64; ++i) {
        const char *w = va_arg(ap, const char *);
        if (w == nullptr || *w == '\0') break;
        line += " ";
        line += w;
    }
    va_end(ap);
    platform().record(line);
    return 0;
}

int stoppid(const char *process, const char *pidfile, int signo) {
    platform().record(std::string("stoppid ") + (process ? process : "") + " " + (pidfile ? pidfile : "") +
                      " " + std::to_string(signo));
    return 0;
}

int HgPushUpgradeMessage(int type, upgrademsg *message) {
    std::string line = "HgPushUpgradeMessage " + std::to_string(type);
    if (message) {
        line += " " + std::to_string(message->failed) + " " + message->version + " " + message->errcode + " " +
                message->upgradeid + " " + message->name;
    }
    platform().record(line);
    return 0;
}

void gwd_process_timer_timeout(void) {
    std::lock_guard<std::mutex> lock(platform().mu);
    ++platform().timer_ticks;
}

int AppSendRequestToPrivateSmartPlat(const char *request, const char *server, int port, char *reply) {
    platform().record(std::string("AppSendRequestToPrivateSmartPlat ") + (server ? server : "") + " " +
                      std::to_string(port));
    std::lock_guard<std::mutex> lock(platform().mu);
    platform().store_requests.push_back(request ? request : "");
    if (reply) reply[0] = '\0';
    if (platform().store_replies.empty()) return -1;
    copy_out(reply, QDP_REPLY_SIZE, platform().store_replies.front());
    platform().store_replies.erase(platform().store_replies.begin());
    return 0;
}

int PlatGetStoredToken(char *out) {
    platform().record("PlatGetStoredToken");
    std::lock_guard<std::mutex> lock(platform().mu);
    copy_out(out, QDP_TOKEN_SIZE, platform().stored_token);
    return 0;
}

}  // extern "C"
