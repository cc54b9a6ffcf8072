#include "footprint.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qdq_test {

namespace {

struct Mapping {
    std::uintptr_t start, end;
    char perms[5];
    bool anonymous;
};

std::vector<Mapping> read_maps() {
    std::vector<Mapping> out;
    FILE *f = std::fopen("/proc/self/maps", "r");
    if (f == nullptr) return out;
    char line[512];
    while (std::fgets(line, sizeof line, f) != nullptr) {
        Mapping m{};
        unsigned long long start, end, offset, inode;
        char dev[16];
        int used = 0;
        if (std::sscanf(line, "%llx-%llx %4s %llx %15s %llu%n", &start, &end, m.perms, &offset, dev, &inode,
                        &used) != 6)
            continue;
        const char *rest = line + used;
        while (*rest == ' ') ++rest;
        m.start = static_cast<std::uintptr_t>(start);
        m.end = static_cast<std::uintptr_t>(end);
        m.anonymous = inode == 0 && (*rest == '\n' || *rest == '\0');
        out.push_back(m);
    }
    std::fclose(f);
    return out;
}

std::size_t resident_pages(const Mapping &m, std::size_t page) {
    std::size_t pages = (m.end - m.start) / page, count = 0;
    std::vector<unsigned char> vec(4096);
    for (std::size_t done = 0; done < pages; done += vec.size()) {
        std::size_t n = pages - done < vec.size() ? pages - done : vec.size();
        // Fails for pseudo mappings such as [vsyscall]: they hold nothing of ours.
        if (mincore(reinterpret_cast<void *>(m.start + done * page), n * page, vec.data()) != 0) return count;
        for (std::size_t i = 0; i < n; ++i) count += vec[i] & 1;
    }
    return count;
}

std::size_t status_kib(const char *key) {
    FILE *f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) return 0;
    char line[256];
    std::size_t value = 0, len = std::strlen(key);
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (std::strncmp(line, key, len) == 0 && line[len] == ':') value = std::strtoull(line + len + 1, nullptr, 10);
    std::fclose(f);
    return value;
}

}  // namespace

bool Footprint::status_is_ours() const {
    std::size_t diff = status_vm_kib > vm_kib ? status_vm_kib - vm_kib : vm_kib - status_vm_kib;
    return diff <= 1024;
}

Footprint measure_footprint() {
    Footprint f;
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::vector<Mapping> maps = read_maps();
    for (std::size_t i = 0; i < maps.size(); ++i) {
        const Mapping &m = maps[i];
        f.vm_kib += (m.end - m.start) / 1024;
        f.resident_kib += resident_pages(m, page) * page / 1024;
        // A thread stack: an anonymous read-write mapping right above its
        // one-page guard. (A malloc arena is the other way round.)
        if (i > 0 && m.anonymous && std::strncmp(m.perms, "rw", 2) == 0) {
            const Mapping &below = maps[i - 1];
            if (below.anonymous && below.end == m.start && below.end - below.start == page &&
                std::strncmp(below.perms, "---", 3) == 0) {
                std::size_t kib = (m.end - m.start) / 1024;
                if (kib >= 8 * 1024) ++f.default_stacks;
                if (kib < 1024) ++f.small_stacks;
                if (kib > f.largest_stack_kib) f.largest_stack_kib = kib;
            }
        }
    }
    f.status_vm_kib = status_kib("VmSize");
    f.status_rss_kib = status_kib("VmRSS");
    return f;
}

}  // namespace qdq_test
