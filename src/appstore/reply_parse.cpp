// The app store's three JSON replies, copied into the exported records with
// bounded copies (the store's texts are never trusted to fit).
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "appstore/appstore.h"
#include "common/log.h"
#include "qdquick/qdquick.h"

namespace {

using qdq::appstore::copy_item_text;
using qdq::appstore::parse_reply_json;

const cJSON *item_of(const cJSON *obj, const char *key) { return cJSON_GetObjectItemCaseSensitive(obj, key); }

// The moment a token was stored: now, through local time and back.
int token_time() {
    time_t now = time(nullptr);
    QDQ_LOG("time():%d\n", static_cast<int>(now));
    struct tm local {};
    if (localtime_r(&now, &local) != nullptr) now = mktime(&local);
    QDQ_LOG("time()->localtime()->mktime():%d\n", static_cast<int>(now));
    return static_cast<int>(now);
}

}  // namespace

extern "C" QDQ_API int AppProcessGetStoreTokenReply(const char *reply) {
    std::memset(&appStoreTokenInfo, 0, sizeof appStoreTokenInfo);
    authResult = 1;
    QDQ_LOG("AppProcessGetStoreTokenReply start!");
    qdq::JsonPtr obj = parse_reply_json(reply);
    if (!obj) return -1;

    const cJSON *token = item_of(obj.get(), "access_token");
    if (token == nullptr) {
        QDQ_LOG("can not find access_token object!\n");
        const cJSON *error = item_of(obj.get(), "error");
        if (error == nullptr) {
            QDQ_LOG("can not find error object!\n");
            return -1;
        }
        copy_item_text(error, appStoreTokenInfo.error, sizeof appStoreTokenInfo.error);
        const cJSON *description = item_of(obj.get(), "error_description");
        if (description == nullptr) {
            QDQ_LOG("can not find error_description object!\n");
            return -1;
        }
        copy_item_text(description, appStoreTokenInfo.error_description,
                       sizeof appStoreTokenInfo.error_description);
        return 0;
    }

    int result = 0;
    authResult = 0;
    timep = token_time();
    appStoreTokenInfo.obtained = timep;
    copy_item_text(token, appStoreTokenInfo.access_token, sizeof appStoreTokenInfo.access_token);
    const cJSON *expire = item_of(obj.get(), "expire_in");
    if (expire != nullptr) {
        char text[qdq::appstore::kExpireTextSize];
        copy_item_text(expire, text, sizeof text);
        appStoreTokenInfo.expire_in = std::atoi(text);
    } else {
        QDQ_LOG("can not find expire_in object!\n");
        result = -1;
    }
    const cJSON *scope = item_of(obj.get(), "scope");
    if (scope != nullptr) {
        copy_item_text(scope, appStoreTokenInfo.scope, sizeof appStoreTokenInfo.scope);
    } else {
        QDQ_LOG("can not find scope object!\n");
        result = -1;
    }
    return result;
}

extern "C" QDQ_API int AppProcessGetStoreUrlReply(const char *reply) {
    QDQ_LOG("AppProcessGetStoreUrlReply start!");
    qdq::JsonPtr obj = parse_reply_json(reply);
    if (!obj) return -1;
    (void)item_of(obj.get(), "Result");  // read by the store's contract, not used

    const cJSON *server = item_of(obj.get(), "ServerURL");
    if (server == nullptr) {
        if (urlResult == 0) urlResult = -2;
        return 0;
    }
    urlResult = 0;
    const cJSON *download = item_of(obj.get(), "DownloadURL");
    if (download == nullptr) {
        QDQ_LOG("can not find downloadUrl_json object!\n");
        return -1;
    }
    const cJSON *server1 = item_of(obj.get(), "ServerURL1");
    if (server1 == nullptr) {
        QDQ_LOG("can not find ServerURL1_json object!\n");
        return -1;
    }
    copy_item_text(server, appStoreUrlInfo.ServerURL, sizeof appStoreUrlInfo.ServerURL);
    copy_item_text(download, appStoreUrlInfo.DownloadURL, sizeof appStoreUrlInfo.DownloadURL);
    copy_item_text(server1, appStoreUrlInfo.ServerURL1, sizeof appStoreUrlInfo.ServerURL1);
    return 0;
}

extern "C" QDQ_API int AppProcessGetPluginUrlReply(const char *reply) {
    QDQ_LOG("AppProcessGetPluginUrlReply start!");
    qdq::JsonPtr obj = parse_reply_json(reply);
    if (!obj) return -1;
    const cJSON *result = item_of(obj.get(), "Result");
    if (result == nullptr) {
        QDQ_LOG("no json object Result!");
        return -1;
    }
    pluginUrlResult = GetIntValueFromJson(result);
    const cJSON *server = item_of(obj.get(), "ServerURL");
    if (server == nullptr) {
        QDQ_LOG("no json object ServerURL!");
        return -1;
    }
    // A plugin platform address configured by the host always wins.
    if (pluginplatinfo.MgtURL[0] == '\0') {
        QDQ_LOG("###app store:pluginplatinfo.MgtURL is null!");
        char url[sizeof pluginplatinfo.MgtURL];
        copy_item_text(server, url, sizeof url);
        std::memset(pluginplatinfo.MgtURL, 0, sizeof pluginplatinfo.MgtURL);
        std::memcpy(pluginplatinfo.MgtURL, url, std::strlen(url));
    }
    return 0;
}
