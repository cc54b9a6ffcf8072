// The library as a router runs it: the shared library with the real
// adapter, initialised, with its timer and local services (UDP on the manage
// port and 18401, TCP, quick-install) started; in a private network
// namespace, as the ports are fixed and the firewall commands real. The process must stay
// within the memory a small gateway can give it, and no thread of the
// library may run on glibc's default 8 MiB stack. The bounds are those of
// docs/mipsel.md; the figures are printed for the record.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "footprint.h"
#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

// What the library may add to the process (thread stacks, per-thread malloc
// arenas, buffers). On a 32-bit target a malloc arena reserves 1 MiB of
// address space; on 64-bit hosts it reserves 64 MiB, hence the wider
// virtual bound there.
constexpr bool kIlp32 = sizeof(void *) == 4;
constexpr std::size_t kAddedVmKib = kIlp32 ? 8 * 1024 : 1024 * 1024;
constexpr std::size_t kAddedResidentKib = 2 * 1024;
// The whole test process (libc, libstdc++, OpenSSL's libcrypto, GoogleTest,
// the library and its threads). Under emulation the main stack is mapped in
// full (8 MiB) instead of growing, which the virtual bound allows for.
constexpr std::size_t kTotalVmKib = kIlp32 ? 32 * 1024 : 1536 * 1024;
constexpr std::size_t kTotalResidentKib = 24 * 1024;

void print(const char *when, const qdq_test::Footprint &f) {
    std::printf("%-9s mapped %6zu KiB  resident %6zu KiB  (status: VmSize %zu KiB, VmRSS %zu KiB%s)  "
                "thread stacks: %d small, %d default, largest %zu KiB\n",
                when, f.vm_kib, f.resident_kib, f.status_vm_kib, f.status_rss_kib,
                f.status_is_ours() ? "" : ", the emulator's", f.small_stacks, f.default_stacks,
                f.largest_stack_kib);
}

void on_timer(int, int, int, int) {}
void on_quick(char *reply, const char *) { std::snprintf(reply, 512, "%s", "ok"); }

// The services keep a pointer to their platform type for their lifetime.
int g_manage = QDQ_PLAT_MANAGE, g_local_udp = QDQ_PLAT_LOCALUDP, g_local_tcp = QDQ_PLAT_LOCALTCP,
    g_quick = QDQ_PLAT_QUICKINSTALL;
constexpr unsigned kManageLocalPort = 18402, kLocalUdpPort = 18401, kLocalTcpPort = 18998, kQuickPort = 7998;

sockaddr_in loopback(unsigned port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    return a;
}

// A service is up when its port is taken: a bind without SO_REUSEADDR fails.
bool port_taken(int type, unsigned port) {
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(port);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    bool taken = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && errno == EADDRINUSE;
    close(fd);
    return taken;
}

// One request through the local UDP port, so that the service thread has
// parsed, dispatched and answered (and allocated what that needs).
bool udp_answers(unsigned port, int ms) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const std::string ping = "{\"RPCMethod\":\"LocalPing\"}";
    sockaddr_in to = loopback(port);
    sendto(fd, ping.data(), ping.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    pollfd p{fd, POLLIN, 0};
    bool answered = poll(&p, 1, ms) == 1;
    close(fd);
    return answered;
}

template <class Pred>
bool within(int ms, Pred pred) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

TEST(Memory, AllServicesRunWithinTheRouterBound) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory makes the figures meaningless";
#endif
    const qdq_test::Footprint before = qdq_test::measure_footprint();
    print("before", before);

    quickevcb_t callbacks{};
    callbacks.timerevent = on_timer;
    callbacks.quickinstall = on_quick;
    ASSERT_EQ(initQdQuick(&callbacks), 0);
    // Timers that fire keep expiry threads coming and going while we measure.
    ASSERT_EQ(AppTimerCreate(1, 8, 1, QdTimeoutHandle), 0);
    manageplatinfo.localport = kManageLocalPort;
    cubeplatinfo.localsrvport = kLocalTcpPort;
    ASSERT_EQ(CreatePrecessUdpReqThread(&g_manage), 0);
    ASSERT_EQ(CreatePrecessUdpReqThread(&g_local_udp), 0);
    ASSERT_EQ(CreatePrecessUdpReqThread(&g_quick), 0);
    ASSERT_EQ(CreatePrecessTcpReqThread(&g_local_tcp), 0);
    const int ms = static_cast<int>(5000 * qdq_test::slowdown());
    EXPECT_TRUE(within(ms, [] { return port_taken(SOCK_DGRAM, kManageLocalPort); }));
    EXPECT_TRUE(within(ms, [] { return port_taken(SOCK_DGRAM, kQuickPort); }));
    EXPECT_TRUE(within(ms, [] { return port_taken(SOCK_STREAM, kLocalTcpPort); }));
    EXPECT_TRUE(within(ms, [] { return udp_answers(kLocalUdpPort, 100); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    const qdq_test::Footprint after = qdq_test::measure_footprint();
    print("services", after);

    EXPECT_EQ(after.default_stacks, 0) << "a thread was started without the library's stack size";
    EXPECT_GE(after.small_stacks, 5) << "the stacks of the timer and service threads were not found";
    EXPECT_LE(after.vm_kib, before.vm_kib + kAddedVmKib);
    EXPECT_LE(after.resident_kib, before.resident_kib + kAddedResidentKib);
    EXPECT_LE(after.vm_kib, kTotalVmKib);
    EXPECT_LE(after.resident_kib, kTotalResidentKib);
    if (after.status_is_ours()) {
        EXPECT_LE(after.status_rss_kib, kTotalResidentKib);
        // mincore also counts file pages cached for other processes, never fewer.
        EXPECT_GE(after.resident_kib + 64, after.status_rss_kib);
    }
}

}  // namespace
