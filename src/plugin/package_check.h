// What a plugin package may hold, read from the archive's own headers before
// anything is unpacked: regular files and folders with relative names that
// never climb out, and at most so many entries and bytes. Links, devices and
// FIFOs are refused: unpacked by tar they could write or be read outside the
// plugin's folder.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace qdq::plugin {

struct PackageLimits {
    std::uint64_t entries;  // files and folders
    std::uint64_t bytes;    // file content once unpacked
};

inline constexpr std::uint64_t kMaxEntries = 4096;
inline constexpr std::uint64_t kMaxUnpacked = 64ull << 20;
// With the order's "Plugin_size": at most this many times the package,
// never below kMinUnpacked nor above kMaxUnpacked.
inline constexpr std::uint64_t kUnpackFactor = 16;
inline constexpr std::uint64_t kMinUnpacked = 1ull << 20;

// The limits for a package the order says is `plugin_size` bytes (0 or less:
// not given).
PackageLimits package_limits(long long plugin_size);

// Reads a tar stream up to its end. "" when every entry is acceptable, else
// the reason (for the log).
std::string check_tar(std::FILE *in, const PackageLimits &limits);

// check_tar on a package file, through "gzip -dc" when `gzipped`.
std::string check_package(const std::string &file, bool gzipped, const PackageLimits &limits);

}  // namespace qdq::plugin
