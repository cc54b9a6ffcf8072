#include "footprint.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace qdq_test {

namespace {

std::size_t resident_pages(unsigned long start, std::size_t pages, std::size_t page) {
    std::vector<unsigned char> vec(pages);
    // Fails for pseudo mappings such as [vsyscall]: nothing of ours is there.
    if (pages == 0 || mincore(reinterpret_cast<void *>(start), pages * page, vec.data()) != 0) return 0;
    std::size_t count = 0;
    for (unsigned char v : vec) count += v & 1;
    return count;
}

}  // namespace

Footprint measure_footprint() {
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
        f.resident_kib += resident_pages(start, (end - start) / page, page) * page / 1024;
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
    return f;
}

}  // namespace qdq_test
