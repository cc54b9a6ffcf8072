// Memory figures of the running process that hold under user-mode emulation
// too: there /proc/self/status describes the emulator, while
// /proc/self/maps is rewritten to list the guest's mappings only and
// mincore() answers for guest addresses.
#pragma once

#include <cstddef>

namespace qdq_test {

struct Footprint {
    std::size_t vm_kib = 0;        // sum of the mappings (VmSize on a real kernel)
    std::size_t resident_kib = 0;  // their pages in memory: an upper bound of VmRSS
    std::size_t status_vm_kib = 0, status_rss_kib = 0;  // as /proc/self/status says
    int small_stacks = 0, default_stacks = 0;  // thread stacks under 1 MiB / of 8 MiB and more
};

Footprint measure_footprint();

}  // namespace qdq_test
