// AppSendRequestToPrivateSmartPlat: the app store transport. TLS with a
// verified server certificate on the given port (plain TCP only when so
// configured and the port is not 443); settings in appstore_conf.h. A
// failed verification ends the connection before a byte of the request
// goes out.
#include <signal.h>
#include <time.h>

#include <openssl/err.h>

#include <chrono>
#include <cstring>
#include <string>

#include "adapter_io.h"
#include "appstore_conf.h"
#include "http_reply.h"
#include "qdquick/qdplatform.h"
#include "store_link.h"

namespace {

constexpr int kTlsPort = 443;

// A peer that closes while we write must not kill the host with SIGPIPE
// (OpenSSL writes with plain write()): block it on this thread for the
// exchange and drop one that arrived meanwhile.
class SigpipeBlock {
public:
    SigpipeBlock() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    }
    ~SigpipeBlock() {
        sigset_t pending;
        sigpending(&pending);
        if (!was_pending_ && sigismember(&pending, SIGPIPE) == 1) {
            struct timespec zero = {0, 0};
            sigtimedwait(&pipe_, nullptr, &zero);
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    SigpipeBlock(const SigpipeBlock &) = delete;
    SigpipeBlock &operator=(const SigpipeBlock &) = delete;

private:
    sigset_t pipe_;
    sigset_t old_;
    bool was_pending_ = false;
};

qdp::Deadline after(double seconds) {
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

int exchange(const char *request, const char *server, int port, char *reply) {
    const qdp::StoreSettings settings = qdp::store_settings();
    const bool tls = port == kTlsPort || !settings.plain;
    std::string why;
    auto link = qdp::StoreLink::open(server, port, tls, settings.ca_file, after(settings.connect_timeout), why);
    if (!link) {
        qdp::warn("app store %s:%d: %s; request not sent", server, port, why.c_str());
        return -1;
    }
    const qdp::Deadline deadline = after(settings.read_timeout);
    if (!link->send_all(request, deadline, why)) {
        qdp::warn("app store %s:%d: sending the request failed: %s", server, port, why.c_str());
        return -1;
    }
    qdp::HttpReply assembled(QDP_REPLY_SIZE - 1);
    char buf[4096];
    for (;;) {
        long n = link->receive(buf, sizeof buf, deadline, why);
        if (n < 0) {
            qdp::warn("app store %s:%d: %s", server, port, why.c_str());
            return -1;
        }
        auto state = n == 0 ? assembled.finish() : assembled.feed(buf, static_cast<std::size_t>(n));
        if (state == qdp::HttpReply::State::bad) {
            qdp::warn("app store %s:%d: unusable reply: %s", server, port, assembled.error().c_str());
            return -1;
        }
        if (state == qdp::HttpReply::State::done) break;
    }
    if (assembled.truncated())
        qdp::warn("app store %s:%d: reply longer than %d bytes, truncated", server, port, QDP_REPLY_SIZE - 1);
    qdp::copy_text(reply, QDP_REPLY_SIZE, assembled.text());
    return 0;
}

}  // namespace

extern "C" QDQ_API int AppSendRequestToPrivateSmartPlat(const char *request, const char *server, int port,
                                                        char *reply) {
    if (reply != nullptr) reply[0] = '\0';
    if (request == nullptr || server == nullptr || server[0] == '\0' || reply == nullptr || port <= 0 ||
        port > 65535) {
        qdp::warn("app store request refused: missing request, server, reply buffer or port");
        return -1;
    }
    const auto failure = [port, reply](const char *host, const char *what) {
        qdp::warn("app store %s:%d: %s", host, port, what);
        reply[0] = '\0';
    };
    return qdq::guard_with(failure, server, -1, [&] {
        SigpipeBlock no_sigpipe;
        int rc = exchange(request, server, port, reply);
        // Leave no stale TLS errors in this thread's queue for the host's
        // own OpenSSL calls.
        ERR_clear_error();
        return rc;
    });
}
