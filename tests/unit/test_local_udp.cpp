// Local UDP request service on 18401 and on the manage platform's local
// port. Runs in a private network namespace (tests/support/in_netns.sh).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "common/log.h"
#include "local_helpers.h"
#include "localsvc/quickinstall.h"

namespace {

int g_local = QDQ_PLAT_LOCALUDP;  // outlive the service threads

std::string firewall(const char *op, unsigned port) {
    return std::string("RunSystemCmd iptables ") + op + " INPUT " + (op[1] == 'I' ? "1 " : "") +
           "-p udp --dport " + std::to_string(port) + " -j ACCEPT";
}

TEST(LocalUdp, AnswersEveryDatagramWholeUpTo2048Bytes) {
    static const bool started = CreatePrecessUdpReqThread(&g_local) == 0 && local::udp_answers(qdq::kLocalUdpPort);
    ASSERT_TRUE(started);
    EXPECT_GE(local::count_calls(firewall("-D", qdq::kLocalUdpPort)), 1u);
    EXPECT_GE(local::count_calls(firewall("-I", qdq::kLocalUdpPort)), 1u);

    const size_t bare = local::ping(1).size();
    int seq = 0;
    for (size_t total : {bare, size_t(2047), size_t(2048)}) {
        SCOPED_TRACE(total);
        const std::string req = local::ping(++seq, total - bare);
        ASSERT_EQ(req.size(), total);
        local::Udp c;
        c.send(qdq::kLocalUdpPort, req);
        const std::string reply = c.recv();
        // The echo carries every padding byte back: nothing cut, nothing
        // read past the datagram.
        EXPECT_EQ(local::json_int(reply, "Seq"), seq);
        EXPECT_NE(reply.find("\"" + std::string(total - bare, 'p') + "\""), std::string::npos);
    }
}

TEST(LocalUdp, ManagePortSkipsEmptyDispatchReopensAfterErrorEndsOnDisconnect) {
    const long fds = net::open_fds();
    const unsigned port = local::free_port(SOCK_DGRAM);
    manageplatinfo.localport = port;
    manageplatinfo.tcpflag = 0;
    qdq_test::platform().reset();
    // Timer 19 starts it, occupying the expiry thread.
    std::thread([] { QdTimeoutHandle(19); }).detach();
    ASSERT_TRUE(local::udp_answers(port));
    const int first = manageplatinfo.socketfd;
    ASSERT_GE(fcntl(first, F_GETFD), 0);
    EXPECT_NE(manageplatinfo.tid, pthread_t{});

    // The platform's acknowledgement gets no answer: the next datagram seen
    // is the reply to the request sent after it.
    local::Udp c;
    c.send(port, "{\"Result\":2}");
    c.send(port, local::ping(5));
    EXPECT_EQ(local::json_int(c.recv(), "Seq"), 5);

    // A receive error (the descriptor no longer a socket) re-opens the
    // socket on the same port and opens the firewall again.
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(null_fd, first), first);
    close(null_fd);
    c.send(port, local::ping(6));  // wakes the wait
    ASSERT_TRUE(local::wait_until([&] { return local::count_calls(firewall("-I", port)) == 2; }));
    EXPECT_EQ(local::count_calls(firewall("-D", port)), 2u);
    ASSERT_TRUE(local::udp_answers(port));

    // The platform disconnect takes the socket out of the record, shuts it
    // down and closes it. The service ends without touching the number
    // again: a descriptor that reuses it stays open; the port is free and
    // nothing leaked.
    const int taken = __atomic_exchange_n(&manageplatinfo.socketfd, -1, __ATOMIC_ACQ_REL);
    shutdown(taken, SHUT_RDWR);
    close(taken);
    qdq::Fd reuse(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(local::wait_until([] { return net::logged(qdq::kLogMain, "socket taken by the platform session"); }));
    EXPECT_GE(fcntl(reuse.get(), F_GETFD), 0);
    EXPECT_TRUE(local::wait_until([&] {
        qdq::Fd probe(socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in a = local::loopback(port);
        return bind(probe.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    }));
    reuse.reset();
    c.fd.reset();
    EXPECT_TRUE(local::wait_until([&] { return net::open_fds() == fds; })) << net::open_fds() << " vs " << fds;
}

TEST(LocalUdp, RefusesOtherSourcesAndEndsWhenThePortIsTaken) {
    qdq_test::platform().reset();
    for (int type : {0, 1, 3, 4, 6}) EXPECT_EQ(StartProcessUdpRequest(&type), 0) << type;
    manageplatinfo.tcpflag = 1;  // timer 19 then takes the TCP service, which refuses plattype 2
    QdTimeoutHandle(19);
    manageplatinfo.tcpflag = 0;
    EXPECT_EQ(CreatePrecessUdpReqThread(nullptr), EINVAL);
    EXPECT_TRUE(qdq_test::platform().calls_named("RunSystemCmd").empty());

    qdq::Fd taken = net::bound(SOCK_DGRAM);  // without SO_REUSEADDR
    manageplatinfo.localport = net::port_of(taken.get());
    const long fds = net::open_fds();
    int type = QDQ_PLAT_MANAGE;
    EXPECT_EQ(StartProcessUdpRequest(&type), -1);
    EXPECT_EQ(manageplatinfo.socketfd, -1);
    EXPECT_EQ(net::open_fds(), fds);
}

}  // namespace
