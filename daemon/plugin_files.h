// What the daemon reads of an installed C plugin: its directory, the few
// descriptor keys it needs to run and stop it.
#pragma once

#include <string>

namespace qdd {

struct PluginDescriptor {
    std::string type = "app";
    std::string entry;   // last component of "EntryFile"
    std::string right;
    int cpu = -1, vram = -1, sockets = -1;
};

// A dotted bundle name, version or id made of letters, digits, '.', '_'
// and '-' only, shorter than `cap`: safe in paths and in the library's
// shell commands.
bool safe_word(const char *text, std::size_t cap, bool empty_ok);
// Package addresses: http(s):// and a conservative character set.
bool safe_url(const char *url, std::size_t cap);

// The part after the last '.' of a bundle name.
std::string short_name(const std::string &bundle);
// "<root>/qdconf/CPlugin/<short>/".
std::string plugin_dir(const std::string &bundle);

// The text of a descriptor file at `path`: false unless it is a regular
// file (no link followed) of at most 64 KiB.
bool read_descriptor_file(const std::string &path, std::string &text);
// Reads plugin_dir(bundle) + "Info.plugin"; false when it is missing or not
// a small regular file.
bool read_descriptor(const std::string &bundle, PluginDescriptor &out);

}  // namespace qdd
