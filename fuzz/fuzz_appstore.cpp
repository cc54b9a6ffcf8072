// The app store's three reply parsers (token, store addresses, plugin
// platform address). The first byte picks the parser; the rest is the whole
// HTTP answer as the host's sender hands it over.
#include <cstring>

#include "support/harness.h"
#include "support/terminated.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    if (size < 1) return 0;
    const std::string reply = qdq_fuzz::text(data + 1, size - 1);
    qdq_fuzz::reset();
    std::memset(&appStoreTokenInfo, 0, sizeof appStoreTokenInfo);
    std::memset(&appStoreUrlInfo, 0, sizeof appStoreUrlInfo);
    // An empty address lets the plugin reply write it.
    if (data[0] & 4) pluginplatinfo.MgtURL[0] = '\0';
    switch (data[0] % 3) {
    case 0: AppProcessGetStoreTokenReply(reply.c_str()); break;
    case 1: AppProcessGetStoreUrlReply(reply.c_str()); break;
    default: AppProcessGetPluginUrlReply(reply.c_str()); break;
    }
    qdq_fuzz::check_text(appStoreTokenInfo.access_token, "access_token");
    qdq_fuzz::check_text(appStoreTokenInfo.scope, "scope");
    qdq_fuzz::check_text(appStoreTokenInfo.error, "error");
    qdq_fuzz::check_text(appStoreTokenInfo.error_description, "error_description");
    qdq_fuzz::check_text(appStoreUrlInfo.ServerURL, "ServerURL");
    qdq_fuzz::check_text(appStoreUrlInfo.DownloadURL, "DownloadURL");
    qdq_fuzz::check_text(appStoreUrlInfo.ServerURL1, "ServerURL1");
    qdq_fuzz::check_record(pluginplatinfo, "plugin");
    return 0;
}
