// Base64 for the quick-install port: the client keeps its own small codec
// so that it does not depend on the agent library.
#include <cstdint>

#include "cli.h"

namespace cli {

namespace {
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int value_of(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}
}  // namespace

std::string base64_encode(const std::string &data) {
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    for (size_t i = 0; i < data.size(); i += 3) {
        const size_t n = data.size() - i < 3 ? data.size() - i : 3;
        uint32_t v = uint32_t(uint8_t(data[i])) << 16;
        if (n > 1) v |= uint32_t(uint8_t(data[i + 1])) << 8;
        if (n > 2) v |= uint8_t(data[i + 2]);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
        out += n > 2 ? kAlphabet[v & 63] : '=';
    }
    return out;
}

std::string base64_decode(const std::string &text) {
    const Error bad(kMalformed, "reply is not Base64");
    if (text.empty() || text.size() % 4 != 0) throw bad;
    size_t pad = 0;
    while (pad < 2 && text[text.size() - 1 - pad] == '=') ++pad;
    std::string out;
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        uint32_t v = 0;
        for (size_t k = 0; k < 4; ++k) {
            const bool padding = last && k >= 4 - pad;
            const int d = padding ? 0 : value_of(text[i + k]);
            if (d < 0) throw bad;
            v = (v << 6) | uint32_t(d);
        }
        out += char(v >> 16);
        if (!last || pad < 2) out += char((v >> 8) & 0xff);
        if (!last || pad < 1) out += char(v & 0xff);
    }
    return out;
}

}  // namespace cli
