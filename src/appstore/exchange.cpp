// The three app store exchanges: build a request, send it through the
// host's sender, parse the answer into the exported records.
#include <cstring>

#include "appstore/appstore.h"
#include "common/log.h"
#include "qdquick/qdquick.h"

using qdq::appstore::kReplySize;
using qdq::appstore::kRequestSize;
using qdq::appstore::send_request;
using qdq::appstore::store_server;

extern "C" QDQ_API int AppProcessStoreTokenRequest(void) {
    char request[kRequestSize] = {};
    if (GenerateGetAppStoreToken(request) != 0) return -1;
    char server[sizeof cubeplatinfo.MgtURL];
    store_server(server, sizeof server);
    char reply[kReplySize];
    if (!send_request(request, server, reply)) return -1;
    return AppProcessGetStoreTokenReply(reply);
}

extern "C" QDQ_API int AppGetStoreToken(void) {
    QDQ_LOG("AppGetStoreToken start!");
    int rc = AppProcessStoreTokenRequest();
    SendAppStoreTokenInfoToWeb();
    return rc;
}

extern "C" QDQ_API int AppGetStoreUrl(void) {
    QDQ_LOG("AppGetStoreUrl start!");
    char server[sizeof cubeplatinfo.MgtURL];
    store_server(server, sizeof server);
    char request[kRequestSize] = {};
    // Without a stored token the generator has run a token exchange instead;
    // the host asks for the addresses again later.
    if (GenerateGetAppStoreUrl(request) != 0) return -1;
    char reply[kReplySize];
    int rc = send_request(request, server, reply) ? AppProcessGetStoreUrlReply(reply) : -1;
    SendAppStoreUrlInfoToWeb();
    return rc;
}

extern "C" QDQ_API int AppGetPluginUrl(void) {
    char request[kRequestSize] = {};
    int built = GenerateGetPluginUrl(request);
    QDQ_LOG("AppGetPluginUrl start!");
    if (built != 0) return -1;
    char server[sizeof appStoreUrlInfo.ServerURL];
    std::memcpy(server, appStoreUrlInfo.ServerURL, sizeof server);
    server[sizeof server - 1] = '\0';
    if (server[0] == '\0') {
        // Nothing to send to before a store-address exchange succeeded.
        QDQ_LOG("app store ServerURL is null!");
        return -1;
    }
    char reply[kReplySize];
    int rc = send_request(request, server, reply) ? AppProcessGetPluginUrlReply(reply) : -1;
    SendPluginUrlInfoToWeb();
    return rc;
}
