// The platform transport over loopback: frames on the wire (exact bytes,
// odd streams, the limit), the UDP request client, and the TCP request
// client on the platform record's connection.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/fd_slots.h"
#include "common/udp_listeners.h"
#include "net_helpers.h"
#include "platintf/hgprocessplatintf.h"

namespace {

// A connected loopback TCP pair: {client, server side}.
std::pair<qdq::Fd, qdq::Fd> tcp_pair() {
    qdq::Fd lst = net::bound(SOCK_STREAM, true);
    qdq::Fd cli = net::connected(net::port_of(lst.get()));
    return {std::move(cli), qdq::Fd(accept(lst.get(), nullptr, nullptr))};
}

TEST(Framing, SendPutsLengthThenTextOnTheWire) {
    auto [cli, srv] = tcp_pair();
    EXPECT_EQ(HgTcpSend(cli.get(), "{}"), 6);
    EXPECT_EQ(net::read_n(srv.get(), 6), std::string("\x00\x00\x00\x02{}", 6));
    EXPECT_EQ(HgTcpSend(cli.get(), nullptr), -1);

    unsigned char out[16];
    std::memset(out, 0xAA, sizeof out);
    EXPECT_EQ(HgProcessSendTcpMsg("0123456789", out), 14);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 14), std::string("\0\0\0\x0a" "0123456789", 14));
    EXPECT_EQ(out[14], 0xAA) << "no NUL after the payload";
}

TEST(Framing, ReceiveOneFrameFromEveryKindOfStream) {
    const std::string none = "<not stored>", big(102400, 'x'), s(3000, 's');
    struct Case {
        const char *name;
        std::vector<std::string> segments;  // written 100 ms apart
        bool close_after;
        int ret;
        std::string payload;  // *out afterwards
        std::string unread;   // left in the socket
    } cases[] = {
        {"one frame", {net::frame("{}")}, false, 2, "{}", ""},
        {"stops at its frame", {net::frame("{\"a\":1}") + net::frame("{}")}, false, 7, "{\"a\":1}", net::frame("{}")},
        {"three segments", {net::frame(s + s + s).substr(0, 3004), s, s}, false, 9000, s + s + s, ""},
        {"100K accepted", {net::frame(big)}, false, 102400, big, ""},
        {"100K + 1 refused, payload unread", {net::frame(big + "y")}, false, 0, none, big + "y"},
        {"negative length refused", {std::string("\xff\xff\xff\xff" "hello", 9)}, false, 0, none, "hello"},
        {"zero length", {net::frame("")}, false, -1, "", ""},
        {"closed mid-payload", {std::string("\0\0\0\x0a" "abcd", 8)}, true, -1, "abcd", ""},
        {"closed before header", {}, true, 0, none, ""},
        // One read for the header: the first two bytes make length 0.
        {"header split in two writes", {std::string("\0\0", 2), std::string("\0\x02{}", 4)}, false, -1, "",
         std::string("\0\x02{}", 4)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        auto [cli, srv] = tcp_pair();
        std::thread writer([&c, &cli = cli] {
            for (size_t i = 0; i < c.segments.size(); ++i) {
                if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
                send(cli.get(), c.segments[i].data(), c.segments[i].size(), MSG_NOSIGNAL);
            }
            if (c.close_after) cli.reset();
        });
        char *out = nullptr;
        EXPECT_EQ(HgTcpRcv(srv.get(), &out), c.ret);
        EXPECT_EQ(out ? std::string(out) : none, c.payload);
        std::free(out);
        EXPECT_EQ(net::read_n(srv.get(), c.unread.size()), c.unread);
        writer.join();
    }
}

// The request clients run over IPv4 and IPv6 (the _v6 twins) through the
// same tables.
struct Family {
    const char *name;
    int af;
    const char *loopback;
    int (*udp)(unsigned, const char *, unsigned, const char *, char *, unsigned);
    int (*tcp)(unsigned, const char *, char *, unsigned);
};
const Family kFamilies[] = {{"v4", AF_INET, "127.0.0.1", HGSendUdpRequest, HGSendTcpRequest},
                            {"v6", AF_INET6, "::1", HGSendUdpRequest_v6, HGSendTcpRequest_v6}};
void PrintTo(const Family &f, std::ostream *os) { *os << f.name; }

class Client : public ::testing::TestWithParam<Family> {
protected:
    void SetUp() override {
        if (!net::bound(SOCK_DGRAM, false, GetParam().af)) GTEST_SKIP() << "no " << GetParam().loopback << " here";
    }
};
INSTANTIATE_TEST_SUITE_P(, Client, ::testing::ValuesIn(kFamilies), [](const auto &i) { return i.param.name; });

constexpr unsigned kPick = 1;    // bind a free local port
constexpr unsigned kServer = 0;  // the test's own server

TEST_P(Client, UdpOneDatagramOutAtMostOneBack) {
    const Family &f = GetParam();
    qdq::Fd taken = net::bound(SOCK_DGRAM, false, f.af);  // no SO_REUSEADDR: binding it fails
    const std::string msg = "{\"RPCMethod\":\"Heartbeat\"}", answer(5000, 'a');
    // One request: how it is made, what the server does, what the caller gets.
    struct Case {
        explicit Case(const char *what, const char *to) : name(what), ip(to) {}
        Case &big() { return big_client = true, *this; }  // HGSendUdpRequest_big (IPv4 only)
        Case &from(unsigned port) { return local = port, *this; }
        Case &waits(unsigned t) { return timeout = t, *this; }
        Case &sends(const char *text) { return msg = text, *this; }
        Case &answered(int bytes, size_t kept_bytes, char after_kept) {
            return sent = bytes, kept = kept_bytes, after = after_kept, *this;
        }
        Case &returns(int rc) { return ret = rc, *this; }
        Case &logs(const char *line) { return logged = line, *this; }

        const char *name, *ip;
        bool big_client = false;
        unsigned local = 0, timeout = 1;
        const char *msg = "{}";
        int sent = -1;    // reply bytes the server sends, -1 = stays silent
        size_t kept = 0;  // reply bytes the caller gets
        char after = 'Z'; // reply[kept] afterwards: zero-filled, or untouched
        int ret = -1;
        const char *logged = "";
    };
    const char *hb = msg.c_str();
    const Case cases[] = {
        Case("short reply, fixed local port", f.loopback).from(kPick).waits(100).sends(hb).answered(20, 20, 0).returns(0),
        Case("600 bytes cut to 512, no NUL", f.loopback).waits(100).sends(hb).answered(600, 512, 'Z').returns(0),
        Case("send only", f.loopback).waits(0).sends(hb).answered(20, 0, 'Z').returns(0),
        Case("big: the byte count", "127.0.0.1").big().waits(100).sends(hb).answered(5000, 5000, 0).returns(5000),
        Case("server silent", f.loopback).logs("timeout in select"),
        Case("local port taken", f.loopback).from(net::port_of(taken.get())).logs("bind failed, errno="),
        Case("no message", f.loopback).sends(nullptr).logs("sendbuf is NULL, return!"),
        Case("malformed address", "127.0.0.300").logs("inet_aton error"),
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        if (c.big_client && f.af != AF_INET) continue;
        qdq::Fd srv = net::bound(SOCK_DGRAM, false, c.big_client ? AF_INET : f.af);
        const unsigned local = c.local == kPick ? net::port_of(net::bound(SOCK_DGRAM, false, f.af).get()) : c.local;
        std::string got;
        sockaddr_storage from{};
        std::thread server([&] {
            socklen_t len = sizeof from;
            if (c.sent < 0 || !net::wait_in(srv.get())) return;
            got.resize(2048);
            got.resize(size_t(recvfrom(srv.get(), &got[0], 2048, 0, reinterpret_cast<sockaddr *>(&from), &len)));
            sendto(srv.get(), answer.data(), size_t(c.sent), 0, reinterpret_cast<sockaddr *>(&from), len);
        });
        const long fds = net::open_fds();
        std::vector<char> reply(102401, 'Z');
        EXPECT_EQ((c.big_client ? HGSendUdpRequest_big : f.udp)(local, c.ip, net::port_of(srv.get()), c.msg,
                                                                reply.data(), c.timeout),
                  c.ret);
        server.join();
        EXPECT_EQ(net::open_fds(), fds);
        EXPECT_EQ(std::string(reply.data(), c.kept), answer.substr(0, c.kept));
        EXPECT_EQ(reply[c.kept], c.after);
        if (c.sent >= 0) {
            EXPECT_EQ(got, msg) << "the text alone: no NUL, no framing";
        }
        if (c.local == kPick) {
            EXPECT_EQ(net::port_in(from), local);
        }
        EXPECT_TRUE(net::logged("/var/shrcadlog.txt", c.logged));
    }
}

// A send-only request from a port where a local service listens leaves
// through the service's socket, so that the platform's instant answer
// reaches the service (with a second socket on that port the kernel hands
// the answer to the newer socket: the sender, which drops it). The service
// here holds its port exclusively, so a request that opened a socket of its
// own there would fail to bind.
TEST(UdpClient, SendOnlyFromAServicePortLeavesThroughTheService) {
    qdq::Fd service = net::bound(SOCK_DGRAM);
    const unsigned port = net::port_of(service.get());
    qdq::listener_opened(service.get(), port);

    qdq::Fd platform = net::bound(SOCK_DGRAM);
    const long fds = net::open_fds();
    char reply[512], buf[64];
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(HGSendUdpRequest(port, "127.0.0.1", net::port_of(platform.get()), "{\"Hb\":1}", reply, 0), 0);
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ASSERT_TRUE(net::wait_in(platform.get()));
        const ssize_t n = recvfrom(platform.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
        EXPECT_EQ(ntohs(from.sin_port), port);
        sendto(platform.get(), buf, size_t(n), 0, reinterpret_cast<sockaddr *>(&from), len);
        ASSERT_TRUE(net::wait_in(service.get()));
        EXPECT_EQ(recv(service.get(), buf, sizeof buf, 0), 8);
    }
    EXPECT_EQ(net::open_fds(), fds);

    // Once the service's socket is closed the request uses a socket of its own.
    const int fd = service.release();
    qdq::close_descriptor(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    qdq::Fd again = net::bound(SOCK_DGRAM);
    EXPECT_EQ(HGSendUdpRequest(port, "127.0.0.1", net::port_of(again.get()), "{}", reply, 0), 0);  // port free again
    EXPECT_TRUE(net::wait_in(again.get(), 2000));
    EXPECT_EQ(net::open_fds(), fds);  // the service's socket gone, `again` opened
}

// Accepts connections until 300 ms pass without one; on each, takes a frame
// as the library's own receiver does (payload, or "<refused>" past 100K)
// and sends the next of `answers` ("" = hang up), then reads to the close.
struct Server {
    qdq::Fd lst;
    std::vector<std::string> got;
    int connections = 0;
    std::thread th;
    Server(std::vector<std::string> answers, int af) : lst(net::bound(SOCK_STREAM, true, af)) {
        th = std::thread([this, answers] {
            while (net::wait_in(lst.get(), 300)) {
                qdq::Fd conn(accept(lst.get(), nullptr, nullptr));
                ++connections;
                bool hang_up = false;
                for (const auto &a : answers) {
                    char *text = nullptr;
                    const int n = HgTcpRcv(conn.get(), &text);
                    got.push_back(n > 0 ? text : n == 0 ? "<refused>" : "<cut>");
                    std::free(text);
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

TEST_P(Client, TcpExchangesOnTheRecordsConnection) {
    const Family &f = GetParam();
    qdq::Fd closed = net::bound(SOCK_STREAM, false, f.af), taken = net::bound(SOCK_STREAM, true, f.af);
    const std::string L(696, 'L');
    std::string big(102401, '\0');  // no fixed frame buffer holds it; ASan watches the client's
    for (size_t i = 0; i < big.size(); ++i) big[i] = char('!' + i % 89);
    using Texts = std::vector<std::string>;
    // Requests on one platform record: the server's answers, what the caller
    // reads, and what is left of the record.
    struct Case {
        Case(const char *what, unsigned plat) : name(what), plattype(plat) {}
        Case &to(unsigned p) { return port = p, *this; }
        Case &from(unsigned p) { return localport = p, *this; }
        Case &answers(Texts a, Texts read) { return server_answers = a, texts = read, ret = 0, *this; }
        Case &of_size(size_t n) { return size = n, *this; }
        Case &server_took(const char *what) { return got = what, *this; }
        Case &logs(const char *line) { return logged = line, *this; }
        Case &clears_record() { return fd_reset = true, *this; }

        const char *name;
        unsigned plattype, port = kServer, localport = 0;  // port kServer: the test's server
        Texts server_answers;  // per request
        Texts texts{""};       // expected at reply + 4, per request
        int ret = -1;
        const char *logged = "";
        bool fd_reset = false;      // socketfd back to -1 after the call
        size_t size = 0;            // of each request sent; 0: short ones
        const char *got = nullptr;  // what the server took, when not the requests
    };
    const Case cases[] = {
        Case("second request reuses the connection", 2)
            .answers({net::frame("{\"R\":0}"), net::frame("{\"R\":1}")}, {"{\"R\":0}", "{\"R\":1}"})
            .logs("HGSendTcpRegister success!"),
        Case("700-byte frame cut at 512", 3).answers({net::frame(L)}, {L.substr(0, 508)}),
        Case("peer closes without answer", 1).answers({""}, {""}),
        Case("100K request whole", 2).answers({net::frame("{}")}, {"{}"}).of_size(102400),
        Case("100K + 1 sent, the peer refuses it", 2).answers({net::frame("{}")}, {"{}"}).of_size(102401)
            .server_took("<refused>"),
        Case("refused", 2).to(net::port_of(closed.get())).logs("connect error!").clears_record(),
        Case("local port taken", 2).from(net::port_of(taken.get())).logs("bind failed"),
        Case("server silent", 2).logs("timeout in select"),
        Case("plattype 4", 4).logs("platinfo is NULL, return!\n").clears_record(),
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        platinfo *rec = getPlatInfo(c.plattype == 4 ? 2 : int(c.plattype));
        Server srv(c.server_answers, f.af);
        const long fds = net::open_fds();
        rec->socketfd = -1;
        rec->localport = c.localport;
        rec->port = c.port == kServer ? net::port_of(srv.lst.get()) : c.port;
        std::snprintf(rec->curip, sizeof rec->curip, "%s", f.loopback);
        std::vector<std::string> sent;
        for (const auto &text : c.texts) {
            sent.push_back(c.size ? big.substr(0, c.size) : "{\"n\":" + std::to_string(sent.size()) + "}");
            const int before = rec->socketfd;
            char reply[600];
            std::memset(reply, 'Z', sizeof reply);
            EXPECT_EQ(f.tcp(c.plattype, sent.back().c_str(), reply, c.ret == 0 ? 100 : 1), c.ret);
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
            EXPECT_EQ(srv.got, c.got ? std::vector<std::string>{c.got} : sent);
        }
        if (c.fd_reset) {
            EXPECT_EQ(rec->socketfd, -1);
        }
        EXPECT_EQ(net::open_fds(), fds);
        EXPECT_TRUE(net::logged("/var/shrcadlog.txt", c.logged));
    }
}

}  // namespace
