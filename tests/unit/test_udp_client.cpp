// UDP request client against a loopback server on 127.0.0.1.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

#include "net_helpers.h"
#include "common/udp_listeners.h"
#include "platintf/hgprocessplatintf.h"

namespace {

using UdpFn = int (*)(unsigned, const char *, unsigned, const char *, char *, unsigned);
constexpr unsigned kPick = 1;  // bind a free local port

TEST(UdpClient, OneDatagramOutAtMostOneBack) {
    qdq::Fd taken = net::bound(SOCK_DGRAM);  // no SO_REUSEADDR: binding it fails
    const std::string msg = "{\"RPCMethod\":\"Heartbeat\"}", answer(5000, 'a');
    struct Case {
        const char *name;
        UdpFn fn;
        unsigned local, timeout;
        const char *ip, *msg;
        int sent;     // reply bytes the server sends, -1 = stays silent
        size_t kept;  // reply bytes the caller gets
        char after;   // reply[kept] afterwards: zero-filled, or untouched
        int ret;
        const char *logged;
    } cases[] = {
        {"short reply, fixed local port", HGSendUdpRequest, kPick, 100, "127.0.0.1", msg.c_str(), 20, 20, 0, 0, ""},
        {"600 bytes cut to 512, no NUL", HGSendUdpRequest, 0, 100, "127.0.0.1", msg.c_str(), 600, 512, 'Z', 0, ""},
        {"send only", HGSendUdpRequest, 0, 0, "127.0.0.1", msg.c_str(), 20, 0, 'Z', 0, ""},
        {"big: the byte count", HGSendUdpRequest_big, 0, 100, "127.0.0.1", msg.c_str(), 5000, 5000, 0, 5000, ""},
        {"server silent", HGSendUdpRequest, 0, 1, "127.0.0.1", "{}", -1, 0, 'Z', -1, "timeout in select"},
        {"local port taken", HGSendUdpRequest, net::port_of(taken.get()), 1, "127.0.0.1", "{}", -1, 0, 'Z', -1,
         "bind failed, errno="},
        {"no message", HGSendUdpRequest_big, 0, 1, "127.0.0.1", nullptr, -1, 0, 'Z', -1, "sendbuf is NULL, return!"},
        {"malformed address", HGSendUdpRequest, 0, 1, "127.0.0.300", "{}", -1, 0, 'Z', -1, "inet_aton error"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        qdq::Fd srv = net::bound(SOCK_DGRAM);
        const unsigned local = c.local == kPick ? net::port_of(net::bound(SOCK_DGRAM).get()) : c.local;
        std::string got;
        sockaddr_in from{};
        std::thread server([&] {
            socklen_t len = sizeof from;
            if (c.sent < 0 || !net::wait_in(srv.get())) return;
            got.resize(2048);
            got.resize(size_t(recvfrom(srv.get(), &got[0], 2048, 0, reinterpret_cast<sockaddr *>(&from), &len)));
            sendto(srv.get(), answer.data(), size_t(c.sent), 0, reinterpret_cast<sockaddr *>(&from), len);
        });
        const long fds = net::open_fds();
        std::vector<char> reply(102401, 'Z');
        EXPECT_EQ(c.fn(local, c.ip, net::port_of(srv.get()), c.msg, reply.data(), c.timeout), c.ret);
        server.join();
        EXPECT_EQ(net::open_fds(), fds);
        EXPECT_EQ(std::string(reply.data(), c.kept), answer.substr(0, c.kept));
        EXPECT_EQ(reply[c.kept], c.after);
        if (c.sent >= 0) {
            EXPECT_EQ(got, msg) << "the text alone: no NUL, no framing";
        }
        if (c.local == kPick) {
            EXPECT_EQ(ntohs(from.sin_port), local);
        }
        EXPECT_TRUE(net::logged("/var/shrcadlog.txt", c.logged));
    }
}

}  // namespace

namespace {

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

}  // namespace
