// AppSendRequestToPrivateSmartPlat against a local TLS server on loopback
// with a self-signed certificate made by the openssl tool.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qdquick/qdplatform.h"
#include "test_env.h"

namespace {

const char kRequest[] = "GET /device/getbind?token=T HTTP/1.1\nHost: 127.0.0.1\n\r\n\r\n";
const std::string kHead = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
const std::string kAnswer = kHead + "Content-Length: 2\r\n\r\n{}";

const std::string &cert_dir() {
    static const std::string dir = [] {
        std::string d = qdq_test::in_root("/certs");
        std::filesystem::create_directories(d);
        RunSystemCmd("/tmp/openssl.out", "openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj",
                     "/CN=localhost", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-days", "2",
                     "-keyout", (d + "/key.pem").c_str(), "-out", (d + "/cert.pem").c_str(), "");
        return d;
    }();
    return dir;
}

// One connection: reads the request head, then writes `pieces` and closes,
// or holds the connection while `silent`. handshake=false: never answers
// the TLS handshake.
class Server {
public:
    struct Plan {
        std::vector<std::string> pieces;
        bool tls = true, silent = false, handshake = true;
        const char *address = "127.0.0.1";
        Plan &plain() { return tls = false, *this; }
        Plan &stays_silent() { return silent = true, *this; }
        Plan &no_handshake() { return handshake = false, *this; }
        Plan &at(const char *a) { return address = a, *this; }
    };
    static Plan writing(std::vector<std::string> pieces) { return Plan{std::move(pieces)}; }
    explicit Server(Plan plan) : plan_(std::move(plan)) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, plan_.address, &a.sin_addr);
        bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a);
        listen(fd_, 1);
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~Server() { received(); close(fd_); }
    int port() const { return port_; }
    const std::string &received() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        return got_;
    }

private:
    void serve() {
        // The client may give up first; writing to it then must not kill the test.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1) return;
        int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        timeval tv{5, 0};
        setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate_file(ctx, (cert_dir() + "/cert.pem").c_str(), SSL_FILETYPE_PEM);
        SSL_CTX_use_PrivateKey_file(ctx, (cert_dir() + "/key.pem").c_str(), SSL_FILETYPE_PEM);
        SSL *ssl = SSL_new(ctx);
        SSL_set_fd(ssl, c);
        bool up = !plan_.tls || (plan_.handshake && SSL_accept(ssl) == 1);
        if (!plan_.handshake) hold();
        char buf[4096];
        while (up && got_.find("\r\n\r\n") == std::string::npos) {
            int n = plan_.tls ? SSL_read(ssl, buf, sizeof buf) : static_cast<int>(recv(c, buf, sizeof buf, 0));
            if (n <= 0) break;
            got_.append(buf, static_cast<size_t>(n));
        }
        for (const std::string &piece : up ? plan_.pieces : std::vector<std::string>{}) {
            if (plan_.tls) SSL_write(ssl, piece.data(), static_cast<int>(piece.size()));
            else send(c, piece.data(), piece.size(), MSG_NOSIGNAL);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (plan_.silent) hold();
        SSL_free(ssl);
        SSL_CTX_free(ctx);
        close(c);
    }
    void hold() {
        while (!stop_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    Plan plan_;
    int fd_ = -1, port_ = 0;
    std::string got_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

using qdq_test::open_fds;

class HttpsSender : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("QDPLATFORM_CA_FILE", (cert_dir() + "/cert.pem").c_str(), 1);
        const std::string limit = std::to_string(0.5 * qdq_test::slowdown());
        setenv("QDPLATFORM_READ_TIMEOUT", limit.c_str(), 1);
        setenv("QDPLATFORM_CONNECT_TIMEOUT", limit.c_str(), 1);
        unsetenv("QDPLATFORM_APPSTORE_PLAIN");
        fds_ = open_fds();
    }
    void TearDown() override { EXPECT_EQ(open_fds(), fds_); }
    int send(const char *server, int port) {
        testing::internal::CaptureStderr();
        const int rc = AppSendRequestToPrivateSmartPlat(kRequest, server, port, reply);
        err = testing::internal::GetCapturedStderr();
        return rc;
    }
    char reply[QDP_REPLY_SIZE];
    std::string err;
    long fds_ = 0;
};

TEST_F(HttpsSender, ReadsEveryBodyFramingWholeAndCutsAtTheBuffer) {
    const std::string big(5000, 'b');
    struct Case {
        std::vector<std::string> pieces;
        std::string expected;
    } cases[] = {
        {{kHead + "Content-Length: 10\r\n\r\n{\"a\":", "\"bc\"}"}, kHead + "Content-Length: 10\r\n\r\n{\"a\":\"bc\"}"},
        {{kHead + "Transfer-Encoding: chunked\r\n\r\n5;x=1\r\n{\"a\":\r\n", "6\r\n\"bcd\"}\r\n0\r\nT: 1\r\n\r\n"},
         kHead + "Transfer-Encoding: chunked\r\n\r\n{\"a\":\"bcd\"}"},
        {{"HTTP/1.0 400 Bad\nX: y\n\n{\"error\":", "\"e\"}"}, "HTTP/1.0 400 Bad\nX: y\n\n{\"error\":\"e\"}"},
        {{kHead + "Content-Length: 5000\r\n\r\n", big},
         (kHead + "Content-Length: 5000\r\n\r\n" + big).substr(0, QDP_REPLY_SIZE - 1)},
    };
    for (const char *host : {"127.0.0.1", "localhost"}) {
        for (const Case &c : cases) {
            Server server(Server::writing(c.pieces));
            ASSERT_EQ(send(host, server.port()), 0) << host << "\n" << err;
            EXPECT_EQ(std::string(reply), c.expected);
            EXPECT_EQ(server.received(), kRequest);
        }
    }
}

// Every failure returns -1 with an empty reply within the time-outs; a
// server that fails verification gets not a byte of the request.
TEST_F(HttpsSender, FailsInTimeAndRefusesUnverifiedServersBeforeSending) {
    const std::string ca = cert_dir() + "/cert.pem";
    struct Case {
        Server::Plan plan;
        std::string ca;      // "" = the system trust store only
        const char *reason;  // "" = not a verification failure
    } cases[] = {
        {Server::writing({kAnswer}), "", "certificate verification failed: self-signed certificate"},
        {Server::writing({kAnswer}).at("127.0.0.2"), ca, "certificate verification failed: IP address mismatch"},
        {Server::writing({kAnswer}), "/nonexistent/ca.pem", "cannot load CA file"},
        {Server::writing({}).stays_silent(), ca, ""},  // handshake, then nothing
        {Server::writing({}).stays_silent().no_handshake(), ca, ""},  // never answers the handshake
        {Server::writing({kHead + "Content-Length: 100\r\n\r\n{\"a\""}), ca, ""},  // closes early
        {Server::writing({kHead + "Transfer-Encoding: chunked\r\n\r\nzz\r\n"}), ca, ""},
        {Server::writing({kAnswer}).plain(), ca, ""},  // plain TCP: TLS is the default
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        if (c.ca.empty()) unsetenv("QDPLATFORM_CA_FILE");
        else setenv("QDPLATFORM_CA_FILE", c.ca.c_str(), 1);
        Server server(c.plan);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(send(c.plan.address, server.port()), -1);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3) * qdq_test::slowdown());
        EXPECT_STREQ(reply, "");
        if (*c.reason != '\0') {
            EXPECT_NE(err.find(c.reason), std::string::npos) << err;
            EXPECT_EQ(server.received(), "");
        }
    }
}

TEST_F(HttpsSender, PlainTcpWhenConfiguredAndCaFileFromConfigFile) {
    setenv("QDPLATFORM_APPSTORE_PLAIN", "1", 1);
    {
        Server server(Server::writing({kAnswer}).plain());
        ASSERT_EQ(send("127.0.0.1", server.port()), 0);
        EXPECT_EQ(std::string(reply), kAnswer);
        EXPECT_EQ(server.received(), kRequest);
    }
    unsetenv("QDPLATFORM_APPSTORE_PLAIN");
    unsetenv("QDPLATFORM_CA_FILE");  // now from the configuration file
    std::filesystem::create_directories(qdq_test::in_root("/etc/qdplatform"));
    qdq_test::write_file(qdq_test::in_root("/etc/qdplatform/appstore.conf"), "ca_file=/certs/cert.pem\n");
    Server server(Server::writing({kAnswer}));
    EXPECT_EQ(send("127.0.0.1", server.port()), 0) << err;
    std::filesystem::remove(qdq_test::in_root("/etc/qdplatform/appstore.conf"));
}

}  // namespace
