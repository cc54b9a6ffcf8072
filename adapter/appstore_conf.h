// Settings of the app store sender, from /etc/qdplatform/appstore.conf
// (key=value) and the environment, which wins over the file:
//   ca_file          QDPLATFORM_CA_FILE              CA bundle (PEM) to trust instead of the system
//                                                    store; the file's value lies under $QDQUICK_ROOT
//   connect_timeout  QDPLATFORM_CONNECT_TIMEOUT      seconds for TCP connect and TLS handshake (10)
//   read_timeout     QDPLATFORM_READ_TIMEOUT         seconds for sending and reading the reply (15)
//   plain            QDPLATFORM_APPSTORE_PLAIN       1: plain TCP on ports other than 443 (0)
#pragma once

#include <string>

namespace qdp {

inline constexpr const char *kAppStoreConfFile = "/etc/qdplatform/appstore.conf";

struct StoreSettings {
    std::string ca_file;  // empty: the system trust store
    double connect_timeout = 10;
    double read_timeout = 15;
    bool plain = false;
};

// Read afresh on every call, so a host (or a test) can change them at run time.
StoreSettings store_settings();

}  // namespace qdp
