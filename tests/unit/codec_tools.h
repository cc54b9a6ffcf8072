// Codec test helpers: an independent tool run on the same bytes, seeded
// random inputs, hexadecimal text.
#pragma once

#include <stdio.h>
#include <sys/wait.h>

#include <optional>
#include <random>
#include <string>

#include "test_env.h"

namespace codec_test {

// Stdout of `command` fed `input`, or nothing when the tool fails or is missing.
inline std::optional<std::string> run_tool(const std::string &command, const std::string &input) {
    const std::string file = qdq_test::in_root("/tmp/tool-input");
    qdq_test::write_file(file, input);
    FILE *p = popen((command + " < '" + file + "' 2>/dev/null").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p == nullptr || pclose(p) != 0) return std::nullopt;
    return out;
}

inline std::string random_bytes(size_t n, unsigned seed, int lo = 0, int hi = 255) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(lo, hi);
    std::string s(n, '\0');
    for (char &c : s) c = static_cast<char>(dist(gen));
    return s;
}

inline std::string to_hex(const std::string &bytes) {
    std::string out;
    for (unsigned char c : bytes) out += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    return out;
}

inline std::string from_hex(const std::string &hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

}  // namespace codec_test
