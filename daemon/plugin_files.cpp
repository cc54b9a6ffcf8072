#include "plugin_files.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "common/paths.h"
#include "common/small_file.h"

namespace qdd {

namespace {

bool all_of(const char *text, const char *extra) {
    for (const char *p = text; *p != '\0'; ++p) {
        if (!std::isalnum(static_cast<unsigned char>(*p)) && std::strchr(extra, *p) == nullptr) return false;
    }
    return true;
}

std::string trim(const std::string &s) {
    const auto b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

}  // namespace

bool safe_word(const char *text, std::size_t cap, bool empty_ok) {
    if (text == nullptr) return empty_ok;
    const std::size_t n = strnlen(text, cap);
    if (n >= cap || (n == 0 && !empty_ok)) return false;
    return all_of(text, "._-") && std::strstr(text, "..") == nullptr;
}

bool safe_url(const char *url, std::size_t cap) {
    if (url == nullptr || strnlen(url, cap) >= cap) return false;
    if (std::strncmp(url, "http://", 7) != 0 && std::strncmp(url, "https://", 8) != 0) return false;
    return all_of(url, "._~:/%+-");
}

std::string short_name(const std::string &bundle) {
    const auto dot = bundle.rfind('.');
    return dot == std::string::npos ? bundle : bundle.substr(dot + 1);
}

std::string plugin_dir(const std::string &bundle) {
    return qdq::path("/qdconf/CPlugin/") + short_name(bundle) + "/";
}

bool read_descriptor_file(const std::string &path, std::string &text) {
    // A plugin folder is written by packages.
    return qdq::read_small_file(path, 64 * 1024, text);
}

bool read_descriptor(const std::string &bundle, PluginDescriptor &out) {
    std::string text;
    if (!read_descriptor_file(plugin_dir(bundle) + "Info.plugin", text)) return false;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        const std::string key = trim(line.substr(0, colon));
        const std::string value = trim(line.substr(colon + 1));
        if (key == "Type") out.type = value;
        else if (key == "Right") out.right = value;
        else if (key == "EntryFile") out.entry = value.substr(value.rfind('/') + 1);
        else if (key == "Cpu") out.cpu = std::atoi(value.c_str());
        else if (key == "VirtualRam") out.vram = std::atoi(value.c_str());
        else if (key == "Socket") out.sockets = std::atoi(value.c_str());
    }
    // Only plugins with the "user" right are held to their limits.
    if (out.right != "user") out.cpu = out.vram = out.sockets = -1;
    return !out.entry.empty();
}

}  // namespace qdd
