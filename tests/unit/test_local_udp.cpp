// Local UDP services: requests on 18401 and on the manage platform's local
// port, and quick-install on 7998 (Base64 both ways through callback slot 3,
// the readiness marker, the 9998 firewall rule, one instance only). Runs in
// a private network namespace (tests/support/in_netns.sh).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/fd_slots.h"
#include "common/host.h"
#include "common/log.h"
#include "local_helpers.h"
#include "localsvc/quickinstall.h"

namespace {

int g_local = QDQ_PLAT_LOCALUDP, g_quick = QDQ_PLAT_QUICKINSTALL;  // outlive the service threads

std::string firewall(const char *op, unsigned port) {
    return std::string("RunSystemCmd iptables ") + op + " INPUT " + (op[1] == 'I' ? "1 " : "") +
           "-p udp --dport " + std::to_string(port) + " -j ACCEPT";
}

TEST(LocalUdp, AnswersEveryDatagramWholeUpTo2048Bytes) {
    static const bool started = CreatePrecessUdpReqThread(&g_local) == 0 && local::udp_answers(qdq::kLocalUdpPort);
    ASSERT_TRUE(started);
    EXPECT_GE(local::count_calls(firewall("-D", qdq::kLocalUdpPort)), 1u);
    EXPECT_GE(local::count_calls(firewall("-I", qdq::kLocalUdpPort)), 1u);

    // The echo carries every padding byte back: nothing cut, nothing read
    // past the datagram.
    const size_t bare = local::ping(1).size();
    int seq = 0;
    for (size_t total : {size_t(2047), size_t(2048)}) {
        SCOPED_TRACE(total);
        local::Udp c;
        c.send(qdq::kLocalUdpPort, local::ping(++seq, total - bare));
        const std::string reply = c.recv();
        EXPECT_EQ(local::json_int(reply, "Seq"), seq);
        EXPECT_NE(reply.find("\"" + std::string(total - bare, 'p') + "\""), std::string::npos);
    }
}

TEST(LocalUdp, ManagePortSkipsEmptyDispatchReopensAfterErrorEndsOnDisconnect) {
    const long fds = net::open_fds();
    const unsigned port = local::free_port(SOCK_DGRAM);
    manageplatinfo.localport = port;
    manageplatinfo.tcpflag = 0;
    std::snprintf(manageplatinfo.curip, sizeof manageplatinfo.curip, "127.0.0.1");
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

    // Only the manage platform is served: a datagram from another address
    // is dropped unanswered; the heartbeat address counts as the platform's.
    std::snprintf(manageplatinfo.curip, sizeof manageplatinfo.curip, "127.0.0.2");
    c.send(port, local::ping(7));
    ASSERT_TRUE(local::wait_until([] { return net::logged(qdq::kLogMain, "dropped, not the manage platform"); }));
    std::snprintf(manageplatinfo.heartbeatip, sizeof manageplatinfo.heartbeatip, "127.0.0.1");
    c.send(port, local::ping(8));
    EXPECT_EQ(local::json_int(c.recv(), "Seq"), 8);

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
    qdq::close_slot(&manageplatinfo.socketfd, true);
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

// The host starts the manage port's service itself. Connects that fail
// (the manage platform's own, and a cube connect that wipes the manage
// record) take its socket out of the record but leave the service
// answering; only a disconnect ends it.
TEST(LocalUdp, HostStartedManagePortOutlivesFailedConnects) {
    static int manage = QDQ_PLAT_MANAGE;
    const unsigned port = local::free_port(SOCK_DGRAM);
    manageplatinfo.localport = port;
    manageplatinfo.socketfd = -1;
    deviceinfo.ipmode = AF_INET;
    // The port serves its platform only: the heartbeat address stays
    // while a connect moves the current one.
    std::snprintf(manageplatinfo.heartbeatip, sizeof manageplatinfo.heartbeatip, "127.0.0.1");
    ASSERT_EQ(CreatePrecessUdpReqThread(&manage), 0);
    ASSERT_TRUE(local::udp_answers(port));
    const int published = manageplatinfo.socketfd;
    ASSERT_GT(published, 0);
    for (platinfo *rec : {&manageplatinfo, &cubeplatinfo})
        std::snprintf(rec->MgtURL, sizeof rec->MgtURL, "0.1.2.3");  // no IPv4 literal by the gateway's test
    EXPECT_EQ(HGConnectManagePlat(&manageplatinfo), 103);
    EXPECT_EQ(manageplatinfo.socketfd, -1);
    EXPECT_TRUE(local::udp_answers(port)) << "silent after a failed manage connect";
    EXPECT_EQ(HGConnectCubePlat(&cubeplatinfo), 103);
    EXPECT_EQ(manageplatinfo.socketfd, -1);  // cleared, but not to descriptor 0
    EXPECT_TRUE(local::udp_answers(port)) << "silent after a cube connect";
    EXPECT_GE(fcntl(published, F_GETFD), 0);
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
    EXPECT_LE(manageplatinfo.socketfd, 0);  // the closed socket was never published
    EXPECT_EQ(net::open_fds(), fds);
}

TEST(LocalUdp, FirewallRulesTakeTheLanInterfaceWhenSet) {
    const std::string d = "RunSystemCmd iptables -D INPUT ", i = "RunSystemCmd iptables -I INPUT 1 ",
                      rule = "-p tcp --dport 5555 -j ACCEPT";
    struct { const char *ifname; std::vector<std::string> calls; } cases[] = {
        {"", {d + rule, i + rule}},
        {"br-lan", {d + rule, d + "-i br-lan " + rule, i + "-i br-lan " + rule}},
        {"eth0.2+", {d + rule, d + "-i eth0.2+ " + rule, i + "-i eth0.2+ " + rule}},
        // not an interface name: the port stays closed rather than open to all
        {"-j", {d + rule}}, {"br lan", {d + rule}}, {"a+b", {d + rule}},
    };
    for (const auto &c : cases) {
        qdq_test::platform().reset();
        std::snprintf(gQuickLanInterface, sizeof gQuickLanInterface, "%s", c.ifname);
        qdq::open_firewall_port("tcp", 5555);
        EXPECT_EQ(qdq_test::platform().calls_named("RunSystemCmd"), c.calls) << c.ifname;
    }
    gQuickLanInterface[0] = '\0';
}

// The host's slot 3: "silent" gets no reply, anything else an ACK.
void quick_reply(char *reply, const char *request) {
    if (std::strcmp(request, "silent") != 0) std::snprintf(reply, 512, "ACK:%s", request);
}

std::string repeat(const std::string &s, int n) {
    std::string out;
    while (n-- > 0) out += s;
    return out;
}

// Every iptables command goes to a stand-in that records its arguments.
void ensure_quick() {
    static const bool started = [] {
        const std::string bin = qdq_test::in_root("/bin");
        mkdir(bin.c_str(), 0755);
        qdq_test::write_file(bin + "/iptables", "#!/bin/sh\necho \"$*\" >> \"" +
                                                     qdq_test::in_root("/iptables.log") + "\"\n");
        chmod((bin + "/iptables").c_str(), 0755);
        setenv("PATH", (bin + ":" + std::getenv("PATH")).c_str(), 1);
        quickevcb.quickinstall = quick_reply;
        const bool ok = CreatePrecessUdpReqThread(&g_quick) == 0 &&
                        local::wait_until([] { return access(qdq_test::in_root("/var/quick_7998_ready").c_str(), F_OK) == 0; });
        signal(SIGCHLD, SIG_DFL);  // safeSystem's is process-wide
        return ok;
    }();
    ASSERT_TRUE(started);
}

TEST(QuickInstall, Base64BothWaysAndNoReplyForBadOrEmpty) {
    ensure_quick();
    struct Case {
        const char *name;
        std::string sent, reply;  // reply "" = none
        const char *logged;
    } cases[] = {
        {"round trip", "aGVsbG8=", "QUNLOmhlbGxv", "revbuf after decode: hello"},
        {"512-byte request", repeat("eHh4", 128), "QUNLOnh4" + repeat("eHh4", 127) + "eA==", "RECV: eHh4"},
        {"not Base64", "abcde", "", "recv is null or decode error!"},
        {"callback writes nothing", "c2lsZW50", "", "send buf is NULL, continue"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        local::Udp client;
        client.send(qdq::kQuickPort, c.sent);
        client.send(qdq::kQuickPort, "aGVsbG8=");  // the reply seen next tells
        if (!c.reply.empty()) {
            EXPECT_EQ(client.recv(), c.reply);
        }
        EXPECT_EQ(client.recv(), "QUNLOmhlbGxv");
        EXPECT_TRUE(net::logged(qdq::kLogMain, c.logged));
    }
}

TEST(QuickInstall, MarkerFirewallAndOneInstanceOnly) {
    ensure_quick();
    EXPECT_EQ(qdq_test::read_file(qdq_test::in_root("/var/quick_7998_ready")), "");
    EXPECT_EQ(qdq_test::read_file(qdq_test::in_root("/iptables.log")),
              "-D INPUT -p udp --dport 9998 -j ACCEPT\n-I INPUT 1 -p udp --dport 9998 -j ACCEPT\n");

    const long fds = net::open_fds();
    EXPECT_EQ(StartProcessPrivateUdpRequest(), -1);
    EXPECT_TRUE(net::logged(qdq::kLogMain, "bind failed\n"));
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(net::open_fds(), fds);

    // QuickSend frees the request on every path (checked under ASan).
    sockaddr_in to = local::loopback(9);
    const auto *dst = reinterpret_cast<const sockaddr *>(&to);
    EXPECT_EQ(QuickSend(nullptr, "x", dst, -1, sizeof to), -1);
    EXPECT_EQ(QuickSend(strdup("req"), "ok", dst, -1, sizeof to), 0);  // a failed send still counts
}

}  // namespace
