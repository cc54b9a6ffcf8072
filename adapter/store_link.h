// One connection to the app store server: TCP with a connect time-out, then
// TLS with the server's certificate verified (against the configured CA file
// or the system trust store, and against the server's name or address), or
// plain TCP when asked. Every wait ends at a deadline.
#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "adapter_io.h"

namespace qdp {

using Deadline = std::chrono::steady_clock::time_point;

struct SslCtxFree {
    void operator()(SSL_CTX *c) const { SSL_CTX_free(c); }
};
struct SslFree {
    void operator()(SSL *s) const { SSL_free(s); }
};

class StoreLink {
public:
    // Connects to server:port and, with tls, completes a verified handshake
    // before `deadline`. ca_file empty: the system trust store. Null with
    // the reason in `why` on failure; nothing has been sent then.
    static std::unique_ptr<StoreLink> open(const char *server, int port, bool tls,
                                           const std::string &ca_file, Deadline deadline, std::string &why);

    bool send_all(std::string_view data, Deadline deadline, std::string &why);
    // Bytes read (> 0), 0 at the end of the stream, -1 on error or time-out.
    long receive(char *buf, std::size_t cap, Deadline deadline, std::string &why);

private:
    StoreLink() = default;
    bool handshake(const char *server, const std::string &ca_file, Deadline deadline, std::string &why);
    // Waits for the SSL call's want; false (why set) on time-out or error.
    bool wait_for_ssl(int ret, Deadline deadline, std::string &why, bool &closed);

    qdq::Fd fd_;
    std::unique_ptr<SSL_CTX, SslCtxFree> ctx_;
    std::unique_ptr<SSL, SslFree> ssl_;
};

}  // namespace qdp
