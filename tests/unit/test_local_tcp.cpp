// Local TCP request service: one framed request per connection, five
// slots with slot-0 eviction, the localability switch, start and stop.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <vector>

#include "common/log.h"
#include "local_helpers.h"
#include "localsvc/quickinstall.h"

namespace {

int g_tcp = QDQ_PLAT_LOCALTCP;  // outlives the service thread

unsigned service_port() {
    static const unsigned port = local::free_port(SOCK_STREAM);
    return port;
}

qdq::Fd connect_local() {
    qdq::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a = local::loopback(service_port());
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) fd.reset();
    return fd;
}

bool idle() { return qdq::local_tcp_state().connections == 0; }

// The peer closed (or reset) the connection within 5 s, sending nothing.
bool closed(int fd) {
    char byte;
    return net::wait_in(fd) && recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

// The reply frame's payload, "<closed>" when the service closed without
// one. Afterwards the service must have closed the connection.
std::string reply_of(int fd) {
    const std::string head = net::read_n(fd, 4);
    if (head.size() < 4) return "<closed>";
    uint32_t n;
    memcpy(&n, head.data(), 4);
    const std::string payload = net::read_n(fd, ntohl(n));
    EXPECT_TRUE(closed(fd)) << "a second reply or an open connection";
    return payload;
}

// Sends `data` (in two pieces when asked) and gives the reply.
std::string exchange(const std::string &data, bool pieces = false) {
    qdq::Fd fd = connect_local();
    const size_t first = pieces ? 7 : data.size();
    send(fd.get(), data.data(), first, MSG_NOSIGNAL);
    usleep(2000);
    send(fd.get(), data.data() + first, data.size() - first, MSG_NOSIGNAL);
    if (data.size() < 4) shutdown(fd.get(), SHUT_WR);
    return reply_of(fd.get());
}

bool answers() {
    return connect_local().valid() && local::json_int(exchange(net::frame(local::ping(0))), "Seq") == 0;
}

// Starts the service unless it runs, and waits until it answers and its
// probing connections are gone.
void ensure_service() {
    if (qdq::local_tcp_state().service != pthread_t{}) return;
    cubeplatinfo.localsrvport = service_port();
    ASSERT_EQ(CreatePrecessTcpReqThread(&g_tcp), 0);
    ASSERT_TRUE(local::wait_until(answers));
    ASSERT_TRUE(local::wait_until(idle));
}

TEST(LocalTcp, OneRequestPerConnectionNothingLeaked) {
    ensure_service();
    EXPECT_GE(local::count_calls("RunSystemCmd iptables -I INPUT 1 -p tcp --dport " +
                                 std::to_string(service_port()) + " -j ACCEPT"), 1u);
    const long fds = net::open_fds();
    const std::string over = net::frame(std::string(102401, 'x')).substr(0, 1004);
    for (int round = 0; round < 8; ++round) {
        EXPECT_EQ(local::json_int(exchange(net::frame(local::ping(11))), "Seq"), 11);
        EXPECT_EQ(local::json_int(exchange(net::frame(local::ping(12)), true), "Seq"), 12);
        for (const std::string &silent : {over, net::frame(""), std::string("\0\0", 2), std::string()})
            EXPECT_EQ(exchange(silent), "<closed>") << silent.size();
    }
    EXPECT_TRUE(net::logged(qdq::kLogMain, "msg length > 100K,ignore this message!"));
    EXPECT_TRUE(local::wait_until(idle));
    EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds; })) << net::open_fds() << " vs " << fds;
}

TEST(LocalTcp, SixthClientEvictsSlotZero) {
    ensure_service();
    const long fds = net::open_fds();
    std::vector<qdq::Fd> idle_clients;
    for (int i = 0; i < 5; ++i) {
        idle_clients.push_back(connect_local());
        ASSERT_TRUE(local::wait_until([&] { return qdq::local_tcp_state().connections == i + 1; }));
    }
    const qdq::LocalTcpState before = qdq::local_tcp_state();

    qdq::Fd sixth = connect_local();
    ASSERT_TRUE(local::wait_until([&] { return qdq::local_tcp_state().sockets[3] == before.sockets[4]; }));
    const qdq::LocalTcpState after = qdq::local_tcp_state();
    EXPECT_EQ(after.connections, 5);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(pthread_equal(after.threads[i], before.threads[i + 1])) << i;
    EXPECT_GE(after.sockets[4], 0);

    // The evicted client sees its connection end; the others stay open.
    EXPECT_TRUE(closed(idle_clients[0].get()));
    for (int i = 1; i < 5; ++i) EXPECT_FALSE(net::wait_in(idle_clients[size_t(i)].get(), 50)) << i;

    // The newcomer is served.
    const std::string req = net::frame(local::ping(6));
    send(sixth.get(), req.data(), req.size(), MSG_NOSIGNAL);
    EXPECT_EQ(local::json_int(reply_of(sixth.get()), "Seq"), 6);

    idle_clients.clear();
    sixth.reset();
    EXPECT_TRUE(local::wait_until(idle));
    EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds; })) << net::open_fds() << " vs " << fds;
}

TEST(LocalTcp, LocalabilityClosesEveryConnection) {
    ensure_service();
    cubeplatinfo.localability = 1;
    EXPECT_EQ(exchange(net::frame(local::ping(1))), "<closed>");
    EXPECT_TRUE(idle());
    cubeplatinfo.localability = 0;
}

TEST(LocalTcp, StartsOnlyForLocalClientsStopsOnceAndRestarts) {
    int manage = QDQ_PLAT_MANAGE;
    EXPECT_EQ(StartProcessTcpRequest(&manage), -1);

    ensure_service();
    const long fds = net::open_fds();
    // A second start replaces the running service.
    const pthread_t first = qdq::local_tcp_state().service;
    ASSERT_EQ(CreatePrecessTcpReqThread(&g_tcp), 0);
    ASSERT_TRUE(local::wait_until([&] {
        pthread_t now = qdq::local_tcp_state().service;
        return now != pthread_t{} && !pthread_equal(now, first) && qdq::local_tcp_state().listen_fd >= 0;
    }));
    ASSERT_TRUE(local::wait_until(answers));
    ASSERT_TRUE(local::wait_until(idle));

    EXPECT_EQ(StopProcessTcpRequest(), 0);
    EXPECT_EQ(qdq::local_tcp_state().service, pthread_t{});
    EXPECT_FALSE(connect_local().valid());  // closed when the stop returns
    EXPECT_EQ(StopProcessTcpRequest(), 0);
    EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds - 1; }));  // the listening socket

    ensure_service();
    EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds; }));
}

}  // namespace
