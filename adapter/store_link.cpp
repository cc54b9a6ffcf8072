#include "store_link.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <cstring>

namespace qdp {

namespace {

// Waits for `events` on fd until the deadline: 1 ready, 0 time-out, -1 error.
int wait_fd(int fd, short events, Deadline deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return 0;
        struct pollfd p = {fd, events, 0};
        int r = ::poll(&p, 1, static_cast<int>(left.count() > 60000 ? 60000 : left.count()));
        if (r > 0) return 1;
        if (r < 0 && errno != EINTR) return -1;
    }
}

// A connected non-blocking TCP socket to one of the server's addresses.
qdq::Fd connect_tcp(const char *server, int port, Deadline deadline, std::string &why) {
    struct addrinfo hints {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    struct addrinfo *list = nullptr;
    const std::string service = std::to_string(port);
    int rc = ::getaddrinfo(server, service.c_str(), &hints, &list);
    if (rc != 0) {
        why = std::string("cannot resolve: ") + gai_strerror(rc);
        return qdq::Fd();
    }
    std::unique_ptr<struct addrinfo, decltype(&freeaddrinfo)> owned(list, freeaddrinfo);
    why = "no address";
    for (struct addrinfo *ai = list; ai != nullptr; ai = ai->ai_next) {
        qdq::Fd fd(::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol));
        if (!fd) {
            why = std::string("socket: ") + std::strerror(errno);
            continue;
        }
        if (::connect(fd.get(), ai->ai_addr, ai->ai_addrlen) == 0) return fd;
        if (errno != EINPROGRESS) {
            why = std::string("connect: ") + std::strerror(errno);
            continue;
        }
        int ready = wait_fd(fd.get(), POLLOUT, deadline);
        if (ready == 0) {
            why = "connect timed out";
            return qdq::Fd();  // the time is used up for every other address too
        }
        int err = 0;
        socklen_t len = sizeof err;
        if (ready < 0 || ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
        if (err == 0) return fd;
        why = std::string("connect: ") + std::strerror(err);
    }
    return qdq::Fd();
}

bool is_address(const char *text) {
    unsigned char buf[sizeof(struct in6_addr)];
    return ::inet_pton(AF_INET, text, buf) == 1 || ::inet_pton(AF_INET6, text, buf) == 1;
}

std::string ssl_error_text() {
    unsigned long e = ERR_get_error();
    if (e == 0) return "TLS failure";
    char buf[256];
    ERR_error_string_n(e, buf, sizeof buf);
    return buf;
}

}  // namespace

std::unique_ptr<StoreLink> StoreLink::open(const char *server, int port, bool tls, const std::string &ca_file,
                                           Deadline deadline, std::string &why) {
    std::unique_ptr<StoreLink> link(new StoreLink());
    link->fd_ = connect_tcp(server, port, deadline, why);
    if (!link->fd_) return nullptr;
    if (tls && !link->handshake(server, ca_file, deadline, why)) return nullptr;
    return link;
}

bool StoreLink::handshake(const char *server, const std::string &ca_file, Deadline deadline, std::string &why) {
    ERR_clear_error();
    ctx_.reset(SSL_CTX_new(TLS_client_method()));
    if (!ctx_) {
        why = ssl_error_text();
        return false;
    }
    SSL_CTX_set_min_proto_version(ctx_.get(), TLS1_2_VERSION);
    SSL_CTX_set_verify(ctx_.get(), SSL_VERIFY_PEER, nullptr);
    // A server that closes without close_notify ends the stream; the HTTP
    // framing (length or chunks) still tells a cut reply from a whole one.
    SSL_CTX_set_options(ctx_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    if (!ca_file.empty()) {
        if (SSL_CTX_load_verify_locations(ctx_.get(), ca_file.c_str(), nullptr) != 1) {
            why = "cannot load CA file " + ca_file + ": " + ssl_error_text();
            return false;
        }
    } else if (SSL_CTX_set_default_verify_paths(ctx_.get()) != 1) {
        why = "cannot load the system trust store: " + ssl_error_text();
        return false;
    }
    ssl_.reset(SSL_new(ctx_.get()));
    if (!ssl_ || SSL_set_fd(ssl_.get(), fd_.get()) != 1) {
        why = ssl_error_text();
        return false;
    }
    bool named = !is_address(server);
    int set = named ? SSL_set_tlsext_host_name(ssl_.get(), server) == 1 && SSL_set1_host(ssl_.get(), server) == 1
                    : X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), server) == 1;
    if (!set) {
        why = "cannot set the name to verify: " + ssl_error_text();
        return false;
    }
    for (;;) {
        ERR_clear_error();
        int ret = SSL_connect(ssl_.get());
        if (ret == 1) return true;
        long verify = SSL_get_verify_result(ssl_.get());
        if (verify != X509_V_OK) {
            why = std::string("certificate verification failed: ") + X509_verify_cert_error_string(verify);
            return false;
        }
        bool closed = false;
        if (!wait_for_ssl(ret, deadline, why, closed)) {
            if (closed) why = "connection closed during the TLS handshake";
            if (why == "timed out") why = "TLS handshake timed out";
            return false;
        }
    }
}

bool StoreLink::wait_for_ssl(int ret, Deadline deadline, std::string &why, bool &closed) {
    int err = SSL_get_error(ssl_.get(), ret);
    short events;
    if (err == SSL_ERROR_WANT_READ) {
        events = POLLIN;
    } else if (err == SSL_ERROR_WANT_WRITE) {
        events = POLLOUT;
    } else {
        closed = err == SSL_ERROR_ZERO_RETURN || (err == SSL_ERROR_SYSCALL && ERR_peek_error() == 0 && errno == 0);
        why = err == SSL_ERROR_SYSCALL && errno != 0 ? std::string(std::strerror(errno)) : ssl_error_text();
        return false;
    }
    int ready = wait_fd(fd_.get(), events, deadline);
    if (ready == 0) why = "timed out";
    if (ready < 0) why = std::strerror(errno);
    return ready > 0;
}

bool StoreLink::send_all(std::string_view data, Deadline deadline, std::string &why) {
    while (!data.empty()) {
        if (ssl_) {
            ERR_clear_error();
            errno = 0;
            int n = SSL_write(ssl_.get(), data.data(), static_cast<int>(data.size()));
            if (n > 0) {
                data.remove_prefix(static_cast<std::size_t>(n));
                continue;
            }
            bool closed = false;
            if (!wait_for_ssl(n, deadline, why, closed)) return false;
            continue;
        }
        ssize_t n = ::send(fd_.get(), data.data(), data.size(), MSG_NOSIGNAL);
        if (n > 0) {
            data.remove_prefix(static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            why = std::strerror(errno);
            return false;
        }
        int ready = wait_fd(fd_.get(), POLLOUT, deadline);
        if (ready <= 0) {
            why = ready == 0 ? "send timed out" : std::strerror(errno);
            return false;
        }
    }
    return true;
}

long StoreLink::receive(char *buf, std::size_t cap, Deadline deadline, std::string &why) {
    for (;;) {
        if (ssl_) {
            ERR_clear_error();
            errno = 0;
            int n = SSL_read(ssl_.get(), buf, static_cast<int>(cap));
            if (n > 0) return n;
            bool closed = false;
            if (wait_for_ssl(n, deadline, why, closed)) continue;
            if (closed) return 0;
            if (why == "timed out") why = "no reply within the read time-out";
            return -1;
        }
        ssize_t n = ::recv(fd_.get(), buf, cap, 0);
        if (n >= 0) return static_cast<long>(n);
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            why = std::strerror(errno);
            return -1;
        }
        int ready = wait_fd(fd_.get(), POLLIN, deadline);
        if (ready <= 0) {
            why = ready == 0 ? "no reply within the read time-out" : std::strerror(errno);
            return -1;
        }
    }
}

}  // namespace qdp
