#include "platform_double.h"

#include <cjson/cJSON.h>

#include <cstdarg>
#include <cstdio>

#include "qdquick/qdplatform.h"

namespace qdq_test {

PlatformDouble &platform() {
    static PlatformDouble p;
    return p;
}

void PlatformDouble::reset() {
    std::lock_guard<std::mutex> lock(mu);
    static_cast<PlatformState &>(*this) = PlatformState();
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
using qdq_test::PlatformState;

namespace {

std::string text(const char *s) { return s != nullptr ? s : ""; }

// Copies the answer held in `field` into a caller's buffer of `cap` bytes.
void copy_answer(std::string PlatformState::*field, char *dst, size_t cap) {
    std::lock_guard<std::mutex> lock(platform().mu);
    if (dst != nullptr) snprintf(dst, cap, "%s", (platform().*field).c_str());
}

int answer(const std::string &call, std::string PlatformState::*field, char *dst, size_t cap) {
    platform().record(call);
    copy_answer(field, dst, cap);
    return 0;
}

}  // namespace

extern "C" {

int GetLoidInfo(char *loid) { return answer("GetLoidInfo", &PlatformState::loid, loid, QDP_LOID_SIZE); }

int GetCardNo(char *cardno) { return answer("GetCardNo", &PlatformState::cardno, cardno, QDP_CARDNO_SIZE); }

int get_wevrin_status(void) {
    platform().record("get_wevrin_status");
    return platform().wevrin;
}

int gghelper_opmode_repeatermode_get(char *br0ip, char *wanlinkmode) {
    copy_answer(&PlatformState::wanlinkmode, wanlinkmode, QDP_WANLINKMODE_SIZE);
    return answer("gghelper_opmode_repeatermode_get", &PlatformState::br0ip, br0ip, QDP_BR0IP_SIZE);
}

struct cJSON *CreateQueryUpdateverReqjson(void) {
    platform().record("CreateQueryUpdateverReqjson");
    std::lock_guard<std::mutex> lock(platform().mu);
    const std::string &json = platform().child_router_json;
    return json.empty() ? nullptr : cJSON_Parse(json.c_str());
}

int setcfgx(const char *file, const char *key, const char *value) {
    const std::string line = text(file) + " " + text(key) + " " + text(value);
    platform().record("setcfgx " + line);
    std::lock_guard<std::mutex> lock(platform().mu);
    platform().setcfg.push_back(line);
    return 0;
}

int getcfgx(const char *file, const char *key, char *value) {
    platform().record("getcfgx " + text(file) + " " + text(key));
    if (value) value[0] = '\0';
    return -1;
}

int getUciOptionValue(const char *package, const char *section, const char *option, char *value) {
    const std::string call = "getUciOptionValue " + text(package) + " " + text(section) + " " + text(option);
    return answer(call, &PlatformState::uci_value, value, QDP_CFGVALUE_SIZE);
}

int RunSystemCmd(const char *outfile, ...) {
    std::string line = "RunSystemCmd";
    va_list ap;
    va_start(ap, outfile);
    for (int i = 0; i < 64; ++i) {
        const char *w = va_arg(ap, const char *);
        if (w == nullptr || *w == '\0') break;
        line += " " + text(w);
    }
    va_end(ap);
    platform().record(line);
    return 0;
}

int stoppid(const char *process, const char *pidfile, int signo) {
    platform().record("stoppid " + text(process) + " " + text(pidfile) + " " + std::to_string(signo));
    return 0;
}

// Records only: the user is never made here, so a confined start stops at
// the user lookup.
int CreatePluginUser(const char *name) {
    platform().record("CreatePluginUser " + text(name));
    return 0;
}

int HgPushUpgradeMessage(int type, upgrademsg *m) {
    std::string line = "HgPushUpgradeMessage " + std::to_string(type);
    if (m) line += " " + std::to_string(m->failed) + " " + m->version + " " + m->errcode + " " + m->upgradeid + " " +
                   m->name;
    platform().record(line);
    return 0;
}

void gwd_process_timer_timeout(void) {
    std::lock_guard<std::mutex> lock(platform().mu);
    ++platform().timer_ticks;
}

int AppSendRequestToPrivateSmartPlat(const char *request, const char *server, int port, char *reply) {
    platform().record("AppSendRequestToPrivateSmartPlat " + text(server) + " " + std::to_string(port));
    std::lock_guard<std::mutex> lock(platform().mu);
    auto &replies = platform().store_replies;
    platform().store_requests.push_back(text(request));
    if (reply) reply[0] = '\0';
    if (replies.empty()) return -1;
    if (reply) snprintf(reply, QDP_REPLY_SIZE, "%s", replies.front().c_str());
    replies.erase(replies.begin());
    return 0;
}

int PlatGetStoredToken(char *out) {
    return answer("PlatGetStoredToken", &PlatformState::stored_token, out, QDP_TOKEN_SIZE);
}

}  // extern "C"
