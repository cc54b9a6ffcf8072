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

bool idle() { return qdq::local_tcp_state().connections == 0; }

std::string exchange(const std::string &data, bool close_write = false) {
    return local::tcp_exchange(service_port(), data, close_write);
}

int seq_of(const std::string &request) { return local::json_int(exchange(net::frame(request)), "Seq"); }

bool answers() { return seq_of(local::ping(0)) == 0; }

// Starts the service unless it runs, and waits until it answers and its
// probing connections are gone.
void ensure_service() {
    if (qdq::local_tcp_state().service != pthread_t{}) return;
    cubeplatinfo.localsrvport = service_port();
    ASSERT_EQ(CreatePrecessTcpReqThread(&g_tcp), 0);
    ASSERT_TRUE(local::wait_until(answers));
    ASSERT_TRUE(local::wait_until(idle));
}

std::string header(uint32_t n) {
    const uint32_t be = htonl(n);
    return std::string(reinterpret_cast<const char *>(&be), 4);
}

TEST(LocalTcp, OneRequestPerConnectionNothingLeaked) {
    ensure_service();
    EXPECT_GE(local::count_calls("RunSystemCmd iptables -I INPUT 1 -p tcp --dport " +
                                 std::to_string(service_port()) + " -j ACCEPT"), 1u);
    const long fds = net::open_fds();
    // Closed without a reply (our side closed after the bytes, so a
    // truncated frame cannot just wait).
    const std::string silent[] = {
        header(102401) + std::string(1000, 'x'),  // over the limit
        header(0x80000000u) + "{}", header(0xffffffffu) + "{}",  // negative
        header(0), header(100) + "{\"RPCMethod\":", std::string("\0\0", 2), std::string(),
    };
    for (int round = 0; round < 8; ++round) {
        EXPECT_EQ(seq_of(local::ping(11)), 11);
        for (const std::string &s : silent) EXPECT_EQ(exchange(s, true), "<closed>") << s.size();
    }
    EXPECT_TRUE(net::logged(qdq::kLogMain, "msg length > 100K,ignore this message!"));

    // A request in two pieces, and one at the 102400-byte limit, are served.
    qdq::Fd fd = local::tcp_connect(service_port());
    const std::string req = net::frame(local::ping(12));
    send(fd.get(), req.data(), 7, MSG_NOSIGNAL);
    usleep(2000);
    send(fd.get(), req.data() + 7, req.size() - 7, MSG_NOSIGNAL);
    EXPECT_EQ(local::json_int(local::tcp_reply(fd.get()), "Seq"), 12);
    fd.reset();
    EXPECT_EQ(seq_of(local::ping(13, 102400 - local::ping(13).size())), 13);

    EXPECT_TRUE(local::wait_until(idle));
    EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds; })) << net::open_fds() << " vs " << fds;
}

TEST(LocalTcp, SixthClientEvictsSlotZero) {
    ensure_service();
    const long fds = net::open_fds();
    std::vector<qdq::Fd> idle_clients;
    for (int i = 0; i < 5; ++i) {
        idle_clients.push_back(local::tcp_connect(service_port()));
        ASSERT_TRUE(local::wait_until([&] { return qdq::local_tcp_state().connections == i + 1; }));
    }
    const qdq::LocalTcpState before = qdq::local_tcp_state();

    qdq::Fd sixth = local::tcp_connect(service_port());
    ASSERT_TRUE(local::wait_until([&] { return qdq::local_tcp_state().sockets[3] == before.sockets[4]; }));
    const qdq::LocalTcpState after = qdq::local_tcp_state();
    EXPECT_EQ(after.connections, 5);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(pthread_equal(after.threads[i], before.threads[i + 1])) << i;
    EXPECT_GE(after.sockets[4], 0);

    // The evicted client sees its connection end; the others stay open;
    // the newcomer is served.
    EXPECT_TRUE(local::closed(idle_clients[0].get()));
    for (int i = 1; i < 5; ++i) EXPECT_FALSE(net::wait_in(idle_clients[size_t(i)].get(), 50)) << i;
    const std::string req = net::frame(local::ping(6));
    send(sixth.get(), req.data(), req.size(), MSG_NOSIGNAL);
    EXPECT_EQ(local::json_int(local::tcp_reply(sixth.get()), "Seq"), 6);

    idle_clients.clear();
    sixth.reset();
    EXPECT_TRUE(local::wait_until(idle));
    EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds; })) << net::open_fds() << " vs " << fds;
}

// A client that has its reply and connects again at once must find the
// slot of its previous connection free: with four other clients holding
// their connections, no round trip may evict one of them.
TEST(LocalTcp, AnsweredConnectionHasLeftItsSlot) {
    ensure_service();
    std::vector<qdq::Fd> holders;
    for (int i = 0; i < 4; ++i) {
        holders.push_back(local::tcp_connect(service_port()));
        ASSERT_TRUE(local::wait_until([&] { return qdq::local_tcp_state().connections == i + 1; }));
    }
    for (int round = 0; round < 30; ++round) {
        qdq::Fd fd = local::tcp_connect(service_port());
        const std::string req = net::frame(local::ping(round));
        send(fd.get(), req.data(), req.size(), MSG_NOSIGNAL);
        ASSERT_EQ(net::read_n(fd.get(), 4).size(), 4u);  // the reply has begun to arrive
        ASSERT_EQ(qdq::local_tcp_state().connections, 4) << "round " << round;
    }
    for (const qdq::Fd &fd : holders) EXPECT_FALSE(net::wait_in(fd.get(), 0));
    holders.clear();
    EXPECT_TRUE(local::wait_until(idle));
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

    // Stopped and started again twice in a row on the same port.
    for (int round = 0; round < 2; round++) {
        SCOPED_TRACE(round);
        EXPECT_EQ(StopProcessTcpRequest(), 0);
        EXPECT_EQ(qdq::local_tcp_state().service, pthread_t{});
        EXPECT_FALSE(local::tcp_connect(service_port()).valid());  // closed when the stop returns
        EXPECT_EQ(StopProcessTcpRequest(), 0);
        EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds - 1; }));  // the listening socket

        ensure_service();
        EXPECT_TRUE(local::wait_until(answers));
        EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds; }));
    }
}

}  // namespace
