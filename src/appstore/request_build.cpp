// The three app store requests. Their line ends are part of the wire format
// the store expects: header lines end in a bare line feed, and only the end
// of the header block is written with CR LF (see each request).
#include <cstdio>
#include <cstring>

#include "appstore/appstore.h"
#include "common/json.h"
#include "common/log.h"
#include "qdquick/qdplatform.h"
#include "qdquick/qdquick.h"

namespace {

using qdq::appstore::kRequestSize;
using qdq::appstore::RequestText;
using qdq::appstore::single_line;

// The store's client number and the stand-in for a LOID the line does not
// have (a LOID beginning with a blank).
constexpr const char *kClientNumber = "5280416";
constexpr const char *kDefaultLoidPart = "86420";

int finish(RequestText &text, char *out) {
    if (!text.ok()) {
        QDQ_LOG("request does not fit its buffer!\n");
        return -1;
    }
    QDQ_LOG("msg:\n%s", out);
    return 0;
}

int refuse_line_break(const char *what) {
    QDQ_LOG("%s holds a line break, request not built!\n", what);
    return -1;
}

}  // namespace

extern "C" QDQ_API int GenerateGetAppStoreToken(char *out) {
    QDQ_LOG("AppGenerateAppStoreGetToken start!\n");
    if (out == nullptr) return -1;
    char credential[160];
    std::snprintf(credential, sizeof credential, "%s %s", kClientNumber,
                  deviceinfo.loid[0] == ' ' ? kDefaultLoidPart : deviceinfo.loid);
    qdq::CText basic(base64_encode(credential));

    qdq::JsonPtr body_obj(cJSON_CreateObject());
    if (body_obj) {
        cJSON_AddStringToObject(body_obj.get(), "username", deviceinfo.mac);
        cJSON_AddStringToObject(body_obj.get(), "password", deviceinfo.devsn);
    }
    QDQ_LOG("devsn:%s\n", deviceinfo.devsn);
    qdq::CText body(body_obj ? cJSON_Print(body_obj.get()) : nullptr);
    if (!body) QDQ_LOG("json is null!");
    if (!basic) return -1;
    if (!single_line(cubeplatinfo.MgtURL)) return refuse_line_break("Host");

    const char *body_text = body ? body.get() : "";
    RequestText text(out, kRequestSize);
    text.add("POST /oauth2.0/authorize?response_type=MAC HTTP/1.1\n");
    text.add("Host: %s\n", cubeplatinfo.MgtURL);
    text.add("Authorization: Basic %s\n", basic.get());
    text.add("Content-Length: %zu\n", std::strlen(body_text));
    text.add("Content-Type: application/json\r\n\r\n");
    text.add("%s", body_text);
    return finish(text, out);
}

extern "C" QDQ_API int GenerateGetAppStoreUrl(char *out) {
    QDQ_LOG("GenerateGetAppStoreUrl start!\n");
    if (out == nullptr) return -1;
    std::memset(gToken, 0, sizeof gToken);
    PlatGetStoredToken(gToken);
    gToken[sizeof gToken - 1] = '\0';
    if (gToken[0] == '\0') {
        QDQ_LOG("GenerateGetAppStoreUrl , token is null!\n");
        AppGetStoreToken();
        return -1;
    }
    if (!single_line(gToken)) return refuse_line_break("token");
    if (!single_line(cubeplatinfo.MgtURL)) return refuse_line_break("Host");
    RequestText text(out, kRequestSize);
    text.add("GET /device/getbind?token=%s&deviceType=0 HTTP/1.1\n", gToken);
    text.add("Host: %s\n", cubeplatinfo.MgtURL);
    text.add("\r\n\r\n");
    return finish(text, out);
}

extern "C" QDQ_API int GenerateGetPluginUrl(char *out) {
    QDQ_LOG("GenerateGetPluginUrl start!\n");
    if (out == nullptr) return -1;
    if (!single_line(gToken) || !single_line(deviceinfo.mac)) return refuse_line_break("token or MAC");
    if (!single_line(appStoreUrlInfo.ServerURL)) return refuse_line_break("Host");
    RequestText text(out, kRequestSize);
    text.add("GET /device/connect?token=%s&MAC=%s HTTP/1.1\n", gToken, deviceinfo.mac);
    text.add("Host: %s\r\n\r\n", appStoreUrlInfo.ServerURL);
    return finish(text, out);
}
