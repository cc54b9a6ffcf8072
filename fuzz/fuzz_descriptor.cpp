// The package descriptor reader. The input's first line is the plugin name
// of the install request, its second the requested version (may be empty),
// the rest is the descriptor "Info.plugin".
#include <cstdio>
#include <cstring>
#include <string>

#include "plugin/descriptor.h"
#include "support/harness.h"
#include "support/terminated.h"

namespace {

std::string take_line(std::string &rest) {
    const size_t nl = rest.find('\n');
    std::string line = rest.substr(0, nl);
    rest = nl == std::string::npos ? "" : rest.substr(nl + 1);
    return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    // The descriptor is a file: NUL bytes in it are read like any other.
    std::string rest(reinterpret_cast<const char *>(data), size);
    const std::string name = take_line(rest);
    const std::string version = take_line(rest);

    cplugininstinfo rec;
    std::memset(&rec, 0, sizeof rec);
    std::snprintf(rec.name, sizeof rec.name, "%s", name.c_str());
    std::snprintf(rec.version, sizeof rec.version, "%s", version.c_str());
    std::string file = rest;
    FILE *in = fmemopen(file.empty() ? nullptr : &file[0], file.size(), "r");
    if (in == nullptr) return 0;
    qdq::plugin::read_descriptor(in, rec);
    std::fclose(in);

    qdq_fuzz::check_text(rec.name, "name");
    qdq_fuzz::check_text(rec.version, "version");
    qdq_fuzz::check_text(rec.type, "type");
    qdq_fuzz::check_text(rec.right, "right");
    qdq_fuzz::check_text(rec.visibility, "visibility");
    qdq_fuzz::check_text(rec.architecture, "architecture");
    qdq_fuzz::check_text(rec.kernelversion, "kernelversion");
    qdq_fuzz::check_text(rec.entryfile, "entryfile");
    qdq_fuzz::check_text(rec.provides, "provides");
    qdq_fuzz::check_text(rec.description, "description");
    return 0;
}
