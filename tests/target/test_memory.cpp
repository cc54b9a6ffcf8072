// The library as a router runs it: the shared library with the real
// adapter, initialised, with its services started. The process must stay
// within the memory a small gateway can give it, and no thread of the
// library may run on glibc's default 8 MiB stack. The bounds are those of
// docs/mipsel.md; the figures are printed for the record.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "footprint.h"
#include "qdquick/qdquick.h"

namespace {

// What the library may add to the process (thread stacks, per-thread malloc
// arenas, buffers). On a 32-bit target a malloc arena reserves 1 MiB of
// address space; on 64-bit hosts it reserves 64 MiB, hence the wider
// virtual bound there.
constexpr bool kIlp32 = sizeof(void *) == 4;
constexpr std::size_t kAddedVmKib = kIlp32 ? 16 * 1024 : 640 * 1024;
constexpr std::size_t kAddedResidentKib = 2 * 1024;
// The whole test process (libc, libstdc++, OpenSSL's libcrypto, GoogleTest,
// the library and its threads). Under emulation the main stack is mapped in
// full (8 MiB) instead of growing, which the virtual bound allows for.
constexpr std::size_t kTotalVmKib = kIlp32 ? 48 * 1024 : 1024 * 1024;
constexpr std::size_t kTotalResidentKib = 24 * 1024;

void print(const char *when, const qdq_test::Footprint &f) {
    std::printf("%-9s mapped %6zu KiB  resident %6zu KiB  (status: VmSize %zu KiB, VmRSS %zu KiB%s)  "
                "thread stacks: %d small, %d default, largest %zu KiB\n",
                when, f.vm_kib, f.resident_kib, f.status_vm_kib, f.status_rss_kib,
                f.status_is_ours() ? "" : ", the emulator's", f.small_stacks, f.default_stacks,
                f.largest_stack_kib);
}

void on_timer(int, int, int, int) {}

TEST(Memory, AllServicesRunWithinTheRouterBound) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory makes the figures meaningless";
#endif
    const qdq_test::Footprint before = qdq_test::measure_footprint();
    print("before", before);

    quickevcb_t callbacks{};
    callbacks.timerevent = on_timer;
    ASSERT_EQ(initQdQuick(&callbacks), 0);
    // Timers that fire keep expiry threads coming and going while we measure.
    ASSERT_EQ(AppTimerCreate(1, 8, 1, QdTimeoutHandle), 0);
    usleep(300 * 1000);

    const qdq_test::Footprint after = qdq_test::measure_footprint();
    print("services", after);

    EXPECT_EQ(after.default_stacks, 0) << "a thread was started without the library's stack size";
    EXPECT_GE(after.small_stacks, 1) << "the timer thread's stack was not found";
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
