// The package descriptor "Info.plugin": "key:value" lines read into the
// install record, with the name and version checks of an install.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "qdquick/qdquick.h"

namespace qdq::plugin {

// clang-format off
enum class DescKey {
    None, Name, Version, Type, Right, Visibility, Architecture, KernelVersion, EntryFile,
    Cpu, PhysicalRam, VirtualRam, Disk, Socket, Provides, Description,
};
// clang-format on

// The key a line stands for: the first key word the line *contains*, in the
// fixed order Name, Version (unless the line holds "KernelVersion"), Type,
// Right, ... Description. A value holding a key word can thus change the
// line's meaning; packages are built to this rule, so it stays.
DescKey classify_line(const char *line);

// The first whitespace-free token after the first ':' into out[cap], cut to
// fit; false (out empty) when the line has no such token.
bool line_value(const char *line, char *out, std::size_t cap);

enum class DescResult { Ok, NameMismatch, VersionMismatch, NoName, Unreadable };

// Reads descriptor lines (at most 255 characters each) from `in` into `rec`.
// A "Name" line must equal rec.name; a "Version" line must equal a non-empty
// rec.version, or fills an empty one. Stops at the first mismatch; a
// descriptor without a "Name" line is NoName.
DescResult read_descriptor(std::FILE *in, cplugininstinfo &rec);

// The descriptor comes from a package: at most this many bytes are read.
inline constexpr std::size_t kMaxDescriptor = 65536;

// read_descriptor on the file `path`, which must be a regular file (not a
// link, FIFO, device or folder) of at most kMaxDescriptor bytes; else
// Unreadable, logged as "cat <path> failed".
DescResult read_descriptor_file(const std::string &path, cplugininstinfo &rec);

}  // namespace qdq::plugin
