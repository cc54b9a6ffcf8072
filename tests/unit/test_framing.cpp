// Frames on the wire over loopback TCP: exact bytes, odd streams, the limit.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "net_helpers.h"
#include "platintf/hgprocessplatintf.h"

namespace {

// A connected loopback TCP pair: {client, server side}.
std::pair<qdq::Fd, qdq::Fd> tcp_pair() {
    qdq::Fd lst = net::bound(SOCK_STREAM, true), cli(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a{};
    qdq::ipv4_address("127.0.0.1", net::port_of(lst.get()), a);
    connect(cli.get(), reinterpret_cast<sockaddr *>(&a), sizeof a);
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

}  // namespace
