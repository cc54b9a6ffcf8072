// AppSendRequestToPrivateSmartPlat: the app store transport. This file holds
// a stand-in until the HTTPS sender exists: every request fails, so the
// library keeps its previous app store records.
#include <atomic>

#include "adapter_io.h"
#include "qdquick/qdplatform.h"

extern "C" QDQ_API int AppSendRequestToPrivateSmartPlat(const char *request, const char *server,
                                                        int port, char *reply) {
    (void)request;
    (void)server;
    (void)port;
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true)) qdp::warn("app store sender not available");
    if (reply != nullptr) reply[0] = '\0';
    return -1;
}
