#include "plugin/descriptor.h"

#include <cctype>
#include <cstring>

#include "common/log.h"
#include "common/small_file.h"

namespace qdq::plugin {

namespace {
struct KeyWord {
    const char *word;
    DescKey key;
};
// The order of the substring tests is part of the package format.
constexpr KeyWord kKeys[] = {
    {"Name", DescKey::Name},
    {"Version", DescKey::Version},
    {"Type", DescKey::Type},
    {"Right", DescKey::Right},
    {"Visibility", DescKey::Visibility},
    {"Architecture", DescKey::Architecture},
    {"KernelVersion", DescKey::KernelVersion},
    {"EntryFile", DescKey::EntryFile},
    {"Cpu", DescKey::Cpu},
    {"PhysicalRam", DescKey::PhysicalRam},
    {"VirtualRam", DescKey::VirtualRam},
    {"Disk", DescKey::Disk},
    {"Socket", DescKey::Socket},
    {"Provides", DescKey::Provides},
    {"Description", DescKey::Description},
};

template <std::size_t N>
void store(char (&field)[N], const char *value) {
    std::size_t n = std::strlen(value);
    if (n >= N) n = N - 1;  // values are cut to their fields
    std::memcpy(field, value, n);
    field[n] = '\0';
}

void store_number(int &field, const char *value) {
    int n = 0;
    if (std::sscanf(value, "%d", &n) == 1) field = n;
}
}  // namespace

DescKey classify_line(const char *line) {
    if (line == nullptr) return DescKey::None;
    for (const KeyWord &k : kKeys) {
        if (std::strstr(line, k.word) == nullptr) continue;
        if (k.key == DescKey::Version && std::strstr(line, "KernelVersion") != nullptr) continue;
        return k.key;
    }
    return DescKey::None;
}

bool line_value(const char *line, char *out, std::size_t cap) {
    if (cap == 0) return false;
    out[0] = '\0';
    const char *colon = line != nullptr ? std::strchr(line, ':') : nullptr;
    // A key part is required before the ':'.
    if (colon == nullptr || colon == line) return false;
    const char *p = colon + 1;
    while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p))) ++p;
    std::size_t n = 0;
    while (p[n] != '\0' && !std::isspace(static_cast<unsigned char>(p[n]))) ++n;
    if (n == 0) return false;
    if (n >= cap) n = cap - 1;
    std::memcpy(out, p, n);
    out[n] = '\0';
    return true;
}

DescResult read_descriptor(std::FILE *in, cplugininstinfo &rec) {
    char line[256];
    char value[256];
    bool named = false;
    while (std::fgets(line, sizeof line, in) != nullptr) {
        DescKey key = classify_line(line);
        if (key == DescKey::None) continue;
        line_value(line, value, sizeof value);
        switch (key) {
            case DescKey::Name:
                if (std::strcmp(value, rec.name) != 0) {
                    QDQ_LOG("plugin name is not in config file, plugin name in request:%s,\tplugin name in config:%s",
                            rec.name, value);
                    return DescResult::NameMismatch;
                }
                named = true;
                break;
            case DescKey::Version:
                if (rec.version[0] != '\0') {
                    if (std::strcmp(value, rec.version) != 0) {
                        QDQ_LOG("##verion is not in config file, vesion in request:%s,\tversion in config:%s",
                                rec.version, value);
                        return DescResult::VersionMismatch;
                    }
                } else {
                    store(rec.version, value);
                    QDQ_LOG("plugin version:%s", rec.version);
                }
                break;
            case DescKey::Type: store(rec.type, value); break;
            case DescKey::Right: store(rec.right, value); break;
            case DescKey::Visibility: store(rec.visibility, value); break;
            case DescKey::Architecture: store(rec.architecture, value); break;
            case DescKey::KernelVersion: store(rec.kernelversion, value); break;
            case DescKey::EntryFile: store(rec.entryfile, value); break;
            case DescKey::Provides: store(rec.provides, value); break;
            case DescKey::Description: store(rec.description, value); break;
            case DescKey::Cpu: store_number(rec.cpu, value); break;
            case DescKey::PhysicalRam: store_number(rec.physicalram, value); break;
            case DescKey::VirtualRam: store_number(rec.virtualram, value); break;
            case DescKey::Disk: store_number(rec.disk, value); break;
            case DescKey::Socket: store_number(rec.socket, value); break;
            case DescKey::None: break;
        }
    }
    if (!named) {
        QDQ_LOG("plugin name is not in config file, plugin name in request:%s,\tplugin name in config:%s", rec.name,
                "");
        return DescResult::NoName;
    }
    return DescResult::Ok;
}

DescResult read_descriptor_file(const std::string &path, cplugininstinfo &rec) {
    std::string text;
    const bool ok = qdq::read_small_file(path, kMaxDescriptor, text);
    if (text.empty()) text = "\n";  // an empty descriptor reads as one without lines
    std::FILE *in = ok ? fmemopen(&text[0], text.size(), "r") : nullptr;
    if (in == nullptr) {
        QDQ_LOG("cat %s failed", path.c_str());
        return DescResult::Unreadable;
    }
    DescResult r = read_descriptor(in, rec);
    std::fclose(in);
    return r;
}

}  // namespace qdq::plugin
