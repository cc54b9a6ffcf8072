// The package header check: the input is a tar stream as gzip would hand it
// over. Whatever it holds, the check ends with an answer, within the limits.
#include <cstdio>
#include <string>

#include "plugin/package_check.h"
#include "support/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    std::string stream(reinterpret_cast<const char *>(data), size);
    FILE *in = fmemopen(stream.empty() ? nullptr : &stream[0], stream.size(), "r");
    if (in == nullptr) return 0;
    qdq::plugin::check_tar(in, qdq::plugin::PackageLimits{64, 1u << 20});
    std::fclose(in);
    return 0;
}
