// Signed "MessagePush" messages to the message server: one frame out, one
// frame back, on a short-lived connection.
#include "platintf/push.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "common/json.h"
#include "common/log.h"
#include "common/resolve.h"
#include "common/socket.h"
#include "platintf/hgprocessplatintf.h"

namespace {

// A silent or unreachable message server must not hold the event thread for
// ever (the connection itself has no time-out of its own).
constexpr double kPushConnectTimeout = 10;
constexpr double kPushReplyTimeout = 30;

std::string push_time() {
    time_t now = time(nullptr);
    struct tm t;
    localtime_r(&now, &t);
    char text[32];
    std::snprintf(text, sizeof text, "%d%02d%02d%02d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                  t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

}  // namespace

std::string BuildPushMessage(const char *message, const char *pluginname, const std::string &stamp) {
    qdq::CText encoded(base64_encode(message ? message : ""));
    const char *b64 = encoded ? encoded.get() : "";
    const std::string signing = stamp + b64 + deviceinfo.mac + deviceinfo.devsn;
    QDQ_LOG("devmac:%s devsn:%s\n", deviceinfo.mac, deviceinfo.devsn);
    char digest[33];
    getmd5(signing.c_str(), digest);
    QDQ_LOG("before md5:%s\nafter md5:%s", signing.c_str(), digest);

    qdq::JsonPtr body(cJSON_CreateObject());
    if (!body) return "";
    cJSON_AddStringToObject(body.get(), "RPCMethod", "MessagePush");
    cJSON_AddStringToObject(body.get(), "Plugin_Name", pluginname ? pluginname : "");
    cJSON_AddStringToObject(body.get(), "time", stamp.c_str());
    cJSON_AddStringToObject(body.get(), "MD5", digest);
    cJSON_AddStringToObject(body.get(), "mac", deviceinfo.mac);
    cJSON_AddStringToObject(body.get(), "Message", b64);
    qdq::CText text(cJSON_Print(body.get()));
    return text ? text.get() : "";
}

int SendPushMessage(const char *message, const char *pluginname) {
    if (messageserver.addr[0] == '\0' || manageplatinfo.regflag == 0) return -1;
    try {
        const std::string stamp = push_time();
        AppMgrLogLine(qdq::kLogPush, "send:%s", message ? message : "");
        const std::string body = BuildPushMessage(message, pluginname, stamp);
        if (body.empty()) return -1;

        qdq::Fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!sock.valid()) {
            QDQ_LOG("socket error, errno=%s\n", strerror(errno));
            return -1;
        }
        QDQ_LOG("socket succ, socket:%d\n", sock.get());
        AppGetIPFromDNS(messageserver.addr);
        struct sockaddr_in to;
        if (!qdq::ipv4_address(messageserver.addr, messageserver.port & 0xffffu, to)) {
            QDQ_LOG("inet_aton error, errno=%s\n", strerror(errno));
            return -1;
        }
        if (qdq::connect_within(sock.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to,
                                kPushConnectTimeout) != 0) {
            QDQ_LOG("connect error! errno=%s\n", strerror(errno));
            return -1;
        }
        int sent = HgTcpSend(sock.get(), body.c_str());
        if (sent < 0) return sent;

        char *raw = nullptr;
        int got = 0;
        if (qdq::wait_readable(sock.get(), kPushReplyTimeout) > 0) got = HgTcpRcv(sock.get(), &raw);
        qdq::CText reply(raw);
        if (got < 0) return got;
        AppMgrLogLine(qdq::kLogPush, "recv:%s", reply ? reply.get() : "");
        int result = reply ? HGProcessPushReply(reply.get()) : -1;
        if (::close(sock.release()) == 0)
            QDQ_LOG("close success");
        else
            QDQ_LOG("close error! errno=%s", strerror(errno));
        return result;
    } catch (const std::exception &) {
        return -1;
    }
}

int HGProcessPushReply(const char *reply) {
    QDQ_LOG("retHGProcessPushReply start!");
    const char *end = nullptr;
    qdq::JsonPtr obj(cJSON_ParseWithOpts(reply ? reply : "", &end, 0));
    if (!obj) {
        QDQ_LOG("Error before: [%s]", end ? end : "");
        return -1;
    }
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(obj.get(), "Result");
    if (result == nullptr) {
        QDQ_LOG("can not find Result object!");
        return -1;
    }
    return cJSON_IsNumber(result) ? result->valueint : 0;
}
