// TCP request client against a scripted loopback platform server.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "net_helpers.h"
#include "platintf/hgprocessplatintf.h"

namespace {

// Accepts connections until 300 ms pass without one; on each, reads a frame
// and sends the next of `answers` ("" = hang up), then waits for the close.
struct Server {
    qdq::Fd lst = net::bound(SOCK_STREAM, true);
    std::vector<std::string> got;
    int connections = 0;
    std::thread th;
    explicit Server(std::vector<std::string> answers) {
        th = std::thread([this, answers] {
            while (net::wait_in(lst.get(), 300)) {
                qdq::Fd conn(accept(lst.get(), nullptr, nullptr));
                ++connections;
                bool hang_up = false;
                for (const auto &a : answers) {
                    uint32_t n = 0;
                    std::memcpy(&n, net::read_n(conn.get(), 4).append(4, '\0').data(), 4);
                    got.push_back(net::read_n(conn.get(), ntohl(n)));
                    if ((hang_up = a.empty())) break;
                    send(conn.get(), a.data(), a.size(), MSG_NOSIGNAL);
                }
                if (!hang_up) net::read_n(conn.get(), 1 << 20);
            }
        });
    }
    void wait() {
        if (th.joinable()) th.join();
    }
    ~Server() { wait(); }
};

TEST(TcpClient, ExchangesOnTheRecordsConnection) {
    qdq::Fd closed = net::bound(SOCK_STREAM), taken = net::bound(SOCK_STREAM, true);
    const std::string L(696, 'L');
    const unsigned kServer = 0;
    struct Case {
        const char *name;
        unsigned plattype, port, localport;  // port kServer: the test's server
        std::vector<std::string> answers;    // the server's, per request
        std::vector<std::string> texts;      // expected at reply + 4, per request
        int ret;
        const char *logged;
        bool fd_reset;  // socketfd back to -1 after the call
    } cases[] = {
        {"second request reuses the connection", 2, kServer, 0, {net::frame("{\"R\":0}"), net::frame("{\"R\":1}")},
         {"{\"R\":0}", "{\"R\":1}"}, 0, "HGSendTcpRegister success!", false},
        {"700-byte frame cut at 512", 3, kServer, 0, {net::frame(L)}, {L.substr(0, 508)}, 0, "", false},
        {"peer closes without answer", 1, kServer, 0, {""}, {""}, 0, "", false},
        {"refused", 2, net::port_of(closed.get()), 0, {}, {""}, -1, "connect error!", true},
        {"local port taken", 2, kServer, net::port_of(taken.get()), {}, {""}, -1, "bind failed", false},
        {"server silent", 2, kServer, 0, {}, {""}, -1, "timeout in select", false},
        {"plattype 4", 4, kServer, 0, {}, {""}, -1, "platinfo is NULL, return!\n", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        platinfo *rec = getPlatInfo(c.plattype == 4 ? 2 : int(c.plattype));
        Server srv(c.answers);
        const long fds = net::open_fds();
        rec->socketfd = -1;
        rec->localport = c.localport;
        rec->port = c.port == kServer ? net::port_of(srv.lst.get()) : c.port;
        std::snprintf(rec->curip, sizeof rec->curip, "127.0.0.1");
        std::vector<std::string> sent;
        for (const auto &text : c.texts) {
            sent.push_back("{\"n\":" + std::to_string(sent.size()) + "}");
            const int before = rec->socketfd;
            char reply[600];
            std::memset(reply, 'Z', sizeof reply);
            EXPECT_EQ(HGSendTcpRequest(c.plattype, sent.back().c_str(), reply, c.ret == 0 ? 100 : 1), c.ret);
            EXPECT_EQ(reply[512], 'Z') << "written past 512 bytes";
            if (c.ret != 0) break;
            EXPECT_EQ(std::string(reply + 4, strnlen(reply + 4, 508)), text);
            EXPECT_TRUE(before == -1 || rec->socketfd == before) << "reconnected";
        }
        if (c.ret == 0) {
            close(rec->socketfd);
            rec->socketfd = -1;
        }
        srv.wait();
        if (c.ret == 0) {
            EXPECT_EQ(srv.connections, 1);
            EXPECT_EQ(srv.got, sent);
        }
        if (c.fd_reset) {
            EXPECT_EQ(rec->socketfd, -1);
        }
        EXPECT_EQ(net::open_fds(), fds);
        EXPECT_TRUE(net::logged("/var/shrcadlog.txt", c.logged));
    }
}

}  // namespace
