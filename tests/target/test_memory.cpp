// The library as a router runs it: the shared library with the real adapter,
// initialised, with its timer and local services (UDP on the manage port and
// on 18401, TCP, quick-install) started, in a private network namespace (the
// ports are fixed, the firewall commands real). The process stays within the
// bounds of docs/mipsel.md and no thread runs on glibc's default 8 MiB stack.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "footprint.h"
#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

// A malloc arena reserves 1 MiB of address space on a 32-bit target and
// 64 MiB on a 64-bit host, hence the wider virtual bounds there. Under
// emulation the main stack is mapped in full (8 MiB), which the total allows.
constexpr bool kIlp32 = sizeof(void *) == 4;
constexpr std::size_t kAddedVmKib = kIlp32 ? 8 * 1024 : 1024 * 1024;
constexpr std::size_t kTotalVmKib = kIlp32 ? 32 * 1024 : 1536 * 1024;
constexpr std::size_t kAddedResidentKib = 2 * 1024, kTotalResidentKib = 24 * 1024;

// The services keep a pointer to their platform type for their lifetime.
int g_manage = QDQ_PLAT_MANAGE, g_udp = QDQ_PLAT_LOCALUDP, g_tcp = QDQ_PLAT_LOCALTCP, g_quick = QDQ_PLAT_QUICKINSTALL;

// A service is up when its port is taken: a bind without SO_REUSEADDR fails.
bool port_taken(int type, unsigned port) {
    for (int waited = 0; waited < 5000 * qdq_test::slowdown(); waited += 10) {
        int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        const bool taken = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && errno == EADDRINUSE;
        close(fd);
        if (taken) return true;
        usleep(10 * 1000);
    }
    return false;
}

void print(const char *when, const qdq_test::Footprint &f) {
    std::printf("%-9s mapped %6zu KiB, resident %6zu KiB (status: VmSize %zu KiB, VmRSS %zu KiB), "
                "thread stacks: %d small, %d default\n",
                when, f.vm_kib, f.resident_kib, f.status_vm_kib, f.status_rss_kib, f.small_stacks,
                f.default_stacks);
}

TEST(Memory, AllServicesRunWithinTheRouterBound) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory makes the figures meaningless";
#endif
    const qdq_test::Footprint before = qdq_test::measure_footprint();
    print("before", before);
    quickevcb_t callbacks{};
    ASSERT_EQ(initQdQuick(&callbacks), 0);
    ASSERT_EQ(AppTimerCreate(1, 8, 1, QdTimeoutHandle), 0);  // expiry threads come and go
    manageplatinfo.localport = 18402;
    cubeplatinfo.localsrvport = 18998;
    for (int *type : {&g_manage, &g_udp, &g_quick}) ASSERT_EQ(CreatePrecessUdpReqThread(type), 0);
    ASSERT_EQ(CreatePrecessTcpReqThread(&g_tcp), 0);
    EXPECT_TRUE(port_taken(SOCK_DGRAM, 18402));
    EXPECT_TRUE(port_taken(SOCK_DGRAM, 18401));
    EXPECT_TRUE(port_taken(SOCK_DGRAM, 7998));
    EXPECT_TRUE(port_taken(SOCK_STREAM, 18998));
    usleep(300 * 1000);

    const qdq_test::Footprint after = qdq_test::measure_footprint();
    print("services", after);
    EXPECT_EQ(after.default_stacks, 0) << "a thread was started without the library's stack size";
    EXPECT_GE(after.small_stacks, 5) << "the timer and service threads' stacks were not found";
    EXPECT_LE(after.vm_kib, before.vm_kib + kAddedVmKib);
    EXPECT_LE(after.resident_kib, before.resident_kib + kAddedResidentKib);
    EXPECT_LE(after.vm_kib, kTotalVmKib);
    EXPECT_LE(after.resident_kib, kTotalResidentKib);
    // A real kernel (not an emulator) also vouches for the resident figure.
    if (after.status_vm_kib <= after.vm_kib + 1024) {
        EXPECT_LE(after.status_rss_kib, kTotalResidentKib);
    }
}

}  // namespace
