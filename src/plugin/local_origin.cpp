#include "plugin/local_origin.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <string>

#include "common/log.h"
#include "common/paths.h"
#include "common/cancel.h"

namespace qdq {

namespace {

constexpr const char *kOriginFile = "/qdconf/CPlugin_local_origin";
constexpr std::size_t kNameMax = 127;  // cplugininstinfo.name without its NUL

std::mutex g_mutex;
std::set<std::string> g_names;  // also when the file cannot be written

std::string kept_name(const char *name) {
    if (name == nullptr) return "";
    std::string s(name, strnlen(name, kNameMax));
    for (char c : s)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return "";
    return s;
}

bool listed(const std::string &name) {
    std::ifstream in(path(kOriginFile));
    for (std::string line; std::getline(in, line);)
        if (line == name) return true;
    return false;
}

}  // namespace

void plugin_mark_local_origin(const char *name) {
    const std::string s = kept_name(name);
    if (s.empty()) return;
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_names.insert(s);
    if (listed(s)) return;
    std::FILE *out = std::fopen(path(kOriginFile).c_str(), "ae");
    if (out == nullptr) {
        QDQ_LOG("cannot record %s as installed by a local order", s.c_str());
        return;
    }
    std::fprintf(out, "%s\n", s.c_str());
    std::fclose(out);
}

bool plugin_local_origin(const char *name) {
    const std::string s = kept_name(name);
    if (s.empty()) return false;
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_names.count(s) != 0 || listed(s);
}

}  // namespace qdq
