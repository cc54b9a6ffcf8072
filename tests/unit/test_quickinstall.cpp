// Quick-install service on UDP 7998: Base64 both ways through callback
// slot 3, the readiness marker, the 9998 firewall rule, one instance only.
// Runs in a private network namespace (tests/support/in_netns.sh).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "local_helpers.h"
#include "localsvc/callbacks.h"
#include "localsvc/quickinstall.h"

namespace {

int g_quick = QDQ_PLAT_QUICKINSTALL;

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
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(net::open_fds(), fds);

    // QuickSend frees the request on every path (checked under ASan).
    sockaddr_in to = local::loopback(9);
    const auto *dst = reinterpret_cast<const sockaddr *>(&to);
    EXPECT_EQ(QuickSend(nullptr, "x", dst, -1, sizeof to), -1);
    EXPECT_EQ(QuickSend(strdup("req"), "ok", dst, -1, sizeof to), 0);  // a failed send still counts
}

}  // namespace
