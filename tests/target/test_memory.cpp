// The library as a router runs it: the shared library with the real adapter,
// initialised, with its timer, local services (UDP on the manage port and on
// 18401, TCP, quick-install) and the manage and plugin platform sessions
// (registered with the simulator, heartbeating) running, in a private
// network namespace (the ports are fixed, the firewall commands real). The process stays within the
// bounds of docs/mipsel.md and no thread runs on glibc's default 8 MiB stack.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <vector>

#include "qdquick/qdquick.h"
#include "sim_process.h"
#include "test_env.h"

namespace {

// A malloc arena reserves 1 MiB of address space on a 32-bit target and
// 64 MiB on a 64-bit host, hence the wider virtual bounds there. Under
// emulation the main stack is mapped in full (8 MiB), which the total allows.
constexpr bool kIlp32 = sizeof(void *) == 4;
constexpr std::size_t kAddedVmKib = kIlp32 ? 8 * 1024 : 1024 * 1024;
constexpr std::size_t kTotalVmKib = kIlp32 ? 32 * 1024 : 1536 * 1024;
constexpr std::size_t kAddedResidentKib = 2 * 1024, kTotalResidentKib = 24 * 1024;

// Memory figures that hold under user-mode emulation too: there
// /proc/self/status describes the emulator, while /proc/self/maps lists the
// guest's mappings only and mincore() answers for guest addresses.
struct Footprint {
    std::size_t vm_kib = 0;        // sum of the mappings (VmSize on a real kernel)
    std::size_t resident_kib = 0;  // their pages in memory: an upper bound of VmRSS
    std::size_t status_vm_kib = 0, status_rss_kib = 0;  // as /proc/self/status says
    int small_stacks = 0, default_stacks = 0;  // thread stacks under 1 MiB / of 8 MiB and more
};

std::size_t resident_kib(unsigned long start, unsigned long end, std::size_t page) {
    const std::size_t pages = (end - start) / page;
    std::vector<unsigned char> vec(pages);
    // Fails for pseudo mappings such as [vsyscall]: nothing of ours is there.
    if (pages == 0 || mincore(reinterpret_cast<void *>(start), pages * page, vec.data()) != 0) return 0;
    std::size_t count = 0;
    for (unsigned char v : vec) count += v & 1;
    return count * page / 1024;
}

Footprint measure() {
    Footprint f;
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    FILE *maps = std::fopen("/proc/self/maps", "r");
    char line[512];
    unsigned long prev_end = 0;
    bool prev_guard = false;
    while (maps != nullptr && std::fgets(line, sizeof line, maps) != nullptr) {
        unsigned long start, end;
        unsigned long long inode;
        char perms[5];
        int used = 0;
        if (std::sscanf(line, "%lx-%lx %4s %*s %*s %llu%n", &start, &end, perms, &inode, &used) != 4) continue;
        const bool anonymous = inode == 0 && line[used + std::strspn(line + used, " ")] == '\n';
        const std::size_t kib = (end - start) / 1024;
        f.vm_kib += kib;
        f.resident_kib += resident_kib(start, end, page);
        // A thread stack: anonymous read-write memory right above a one-page
        // guard (a malloc arena is the other way round).
        if (anonymous && prev_guard && prev_end == start && std::strncmp(perms, "rw", 2) == 0) {
            f.small_stacks += kib < 1024;
            f.default_stacks += kib >= 8 * 1024;
        }
        prev_guard = anonymous && end - start == page && std::strncmp(perms, "---", 3) == 0;
        prev_end = end;
    }
    if (maps != nullptr) std::fclose(maps);
    FILE *status = std::fopen("/proc/self/status", "r");
    while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr) {
        std::sscanf(line, "VmSize: %zu", &f.status_vm_kib);
        std::sscanf(line, "VmRSS: %zu", &f.status_rss_kib);
    }
    if (status != nullptr) std::fclose(status);
    std::printf("mapped %6zu KiB, resident %6zu KiB (status: VmSize %zu KiB, VmRSS %zu KiB), "
                "thread stacks: %d small, %d default\n",
                f.vm_kib, f.resident_kib, f.status_vm_kib, f.status_rss_kib, f.small_stacks, f.default_stacks);
    return f;
}

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

// Platforms (bit per type) whose session reached "connected".
std::atomic<unsigned> g_connected{0};

void on_status(int plattype, const char *status, int) {
    if (status != nullptr && std::strcmp(status, "connected") == 0) g_connected |= 1u << plattype;
}
void on_distri(int, platinfo *) {}
void on_quick(char *reply, const char *) { reply[0] = '\0'; }

// The manage session holds its caller for as long as it lasts: a thread of
// the host's, with a small stack like the library's own.
void *manage_session(void *) {
    HGConnectManagePlat(&manageplatinfo);
    return nullptr;
}

// The cube connect timer: an id the library hands to the host's timer event.
constexpr int kCubeConnectTimer = 8;

TEST(Memory, AllServicesRunWithinTheRouterBound) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory makes the figures meaningless";
#endif
    qdq_test::SimProcess sim({"--serial", "SN1"});
    ASSERT_TRUE(sim.ready());
    const Footprint before = measure();
    quickevcb_t callbacks{};
    callbacks.platstatus = on_status;
    callbacks.platdistri = on_distri;
    callbacks.quickinstall = on_quick;
    ASSERT_EQ(initQdQuick(&callbacks), 0);
    ASSERT_EQ(AppTimerCreate(1, kCubeConnectTimer, 1, QdTimeoutHandle), 0);  // expiry threads come and go
    manageplatinfo.localport = 18402;
    cubeplatinfo.localsrvport = 18998;
    for (int *type : {&g_manage, &g_udp, &g_quick}) ASSERT_EQ(CreatePrecessUdpReqThread(type), 0);
    ASSERT_EQ(CreatePrecessTcpReqThread(&g_tcp), 0);
    for (unsigned port : {18402, 18401, 7998}) EXPECT_TRUE(port_taken(SOCK_DGRAM, port)) << port;
    EXPECT_TRUE(port_taken(SOCK_STREAM, 18998));

    deviceinfo_t *device = getSdkDevInfo();
    std::snprintf(device->devsn, sizeof device->devsn, "SN1");
    std::snprintf(device->mac, sizeof device->mac, "001122334455");
    std::snprintf(device->ipaddr, sizeof device->ipaddr, "127.0.0.1");
    device->ipmode = 2;
    std::snprintf(manageplatinfo.MgtURL, sizeof manageplatinfo.MgtURL, "127.0.0.1");
    manageplatinfo.port = sim.port("manage");
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 256 * 1024);
    pthread_t manage;
    ASSERT_EQ(pthread_create(&manage, &attr, manage_session, nullptr), 0);
    pthread_attr_destroy(&attr);
    pthread_detach(manage);
    const auto wait_connected = [](unsigned mask) {
        for (int waited = 0; (g_connected & mask) != mask && waited < 10000 * qdq_test::slowdown(); waited += 10)
            usleep(10 * 1000);
        return (g_connected & mask) == mask;
    };
    // The manage connect clears the plugin record: the plugin platform comes after it.
    ASSERT_TRUE(wait_connected(1u << QDQ_PLAT_MANAGE)) << "the manage session did not register";
    std::snprintf(pluginplatinfo.MgtURL, sizeof pluginplatinfo.MgtURL, "127.0.0.1");
    pluginplatinfo.port = sim.port("plugin");
    ASSERT_EQ(CreateConnectPluginPlatThread(), 0);
    EXPECT_TRUE(wait_connected(1u << QDQ_PLAT_PLUGIN)) << "the plugin session did not register";
    usleep(300 * 1000);

    const Footprint after = measure();
    EXPECT_EQ(after.default_stacks, 0) << "a thread was started without the library's stack size";
    EXPECT_GE(after.small_stacks, 5) << "the timer and service threads' stacks were not found";
    EXPECT_LE(after.vm_kib, before.vm_kib + kAddedVmKib);
    EXPECT_LE(after.resident_kib, before.resident_kib + kAddedResidentKib);
    EXPECT_LE(after.vm_kib, kTotalVmKib);
    EXPECT_LE(after.resident_kib, kTotalResidentKib);
    // A real kernel (not an emulator) also vouches for the resident figure.
    EXPECT_TRUE(after.status_vm_kib > after.vm_kib + 1024 || after.status_rss_kib <= kTotalResidentKib)
        << "VmRSS " << after.status_rss_kib << " KiB";
}

}  // namespace
