// The one road of every app store request: server choice and the host's
// sender.
#include <cstdio>
#include <cstring>

#include "appstore/appstore.h"
#include "common/defaults.h"
#include "common/log.h"
#include "qdquick/qdplatform.h"

namespace qdq::appstore {

void store_server(char *out, std::size_t cap) {
    // The whole MgtURL field is taken: a host name cut short would only
    // reach the wrong host.
    const char *host = cubeplatinfo.MgtURL[0] != '\0' ? cubeplatinfo.MgtURL : qdq::default_cube_address();
    std::snprintf(out, cap, "%.*s", static_cast<int>(sizeof cubeplatinfo.MgtURL - 1), host);
}

bool send_request(const char *request, const char *server, char *reply) {
    std::memset(reply, 0, kReplySize);
    int rc = AppSendRequestToPrivateSmartPlat(request, server, port, reply);
    // A sender that fills the whole buffer must not leave it unterminated.
    reply[kReplySize - 1] = '\0';
    if (rc == -1 || reply[0] == '\0') {
        QDQ_LOG("send request to %s:%d failed!\n", server, port);
        return false;
    }
    return true;
}

}  // namespace qdq::appstore
