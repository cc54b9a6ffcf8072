// Memory figures of the running process, measured so that they describe the
// program itself also under user-mode emulation: there /proc/self/status
// describes the emulator (its own heap, the translated code and a reserve of
// the whole guest address space), while /proc/self/maps is rewritten to list
// the guest's mappings only, and mincore() answers for guest addresses.
#pragma once

#include <cstddef>

namespace qdq_test {

struct Footprint {
    std::size_t vm_kib = 0;          // sum of the mappings (VmSize on a real kernel)
    std::size_t resident_kib = 0;    // pages of those mappings in memory (upper bound of VmRSS)
    std::size_t status_vm_kib = 0;   // VmSize as /proc/self/status gives it
    std::size_t status_rss_kib = 0;  // VmRSS as /proc/self/status gives it
    int default_stacks = 0;          // thread stacks of glibc's default size (8 MiB and more)
    int small_stacks = 0;            // thread stacks under 1 MiB
    std::size_t largest_stack_kib = 0;  // of the thread stacks (the main stack is not one)

    // True when /proc/self/status agrees with the mappings, i.e. no emulator
    // sits between this program and the kernel.
    bool status_is_ours() const;
};

Footprint measure_footprint();

}  // namespace qdq_test
