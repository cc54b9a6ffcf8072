// Base64 (standard alphabet, '=' padding, no line breaks) for NUL-terminated
// texts and for counted binary data. Results are malloc'd and freed by the
// caller. Decoding trusts its input: bytes outside the alphabet are not
// rejected, they only yield meaningless bytes - but never an access outside
// either buffer.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "qdquick/qdquick.h"

namespace {

constexpr char base64_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Reverse of base64_alphabet; every other byte, '=' included, maps to 255.
struct SuffixMap {
    unsigned char value[256];
    constexpr SuffixMap() : value() {
        for (int i = 0; i < 256; i++) value[i] = 255;
        for (int i = 0; i < 64; i++) value[static_cast<unsigned char>(base64_alphabet[i])] = static_cast<unsigned char>(i);
    }
};
constexpr SuffixMap base64_suffix_map;

char *encode(const unsigned char *data, size_t length) {
    if (data == nullptr || length == 0) return nullptr;
    size_t groups = length / 3 + (length % 3 != 0 ? 1 : 0);
    if (groups > (SIZE_MAX - 1) / 4) return nullptr;
    char *out = static_cast<char *>(std::malloc(groups * 4 + 1));
    if (out == nullptr) return nullptr;
    char *o = out;
    for (size_t i = 0; i < length; i += 3) {
        size_t left = length - i;
        unsigned b0 = data[i];
        unsigned b1 = left > 1 ? data[i + 1] : 0;
        unsigned b2 = left > 2 ? data[i + 2] : 0;
        *o++ = base64_alphabet[b0 >> 2];
        *o++ = base64_alphabet[((b0 & 0x03) << 4) | (b1 >> 4)];
        *o++ = left > 1 ? base64_alphabet[((b1 & 0x0f) << 2) | (b2 >> 6)] : '=';
        *o++ = left > 2 ? base64_alphabet[b2 & 0x3f] : '=';
    }
    *o = '\0';
    return out;
}

// Decodes `text`; *out_size receives the buffer size (decoded bytes + 1).
char *decode(const char *text, size_t *out_size) {
    if (text == nullptr) return nullptr;
    size_t length = std::strlen(text);
    if (length == 0 || length % 4 != 0) return nullptr;
    size_t padding = 0;
    if (text[length - 1] == '=') padding = (text[length - 2] == '=') ? 2 : 1;
    // length >= 4, so 3 * length / 4 >= 3 > padding: a padding-only text
    // such as "====" still leaves one byte and the size cannot underflow.
    size_t data = length / 4 * 3 - padding;
    char *out = static_cast<char *>(std::malloc(data + 1));
    if (out == nullptr) return nullptr;
    const unsigned char *in = reinterpret_cast<const unsigned char *>(text);
    const unsigned char *map = base64_suffix_map.value;
    size_t o = 0;
    for (size_t i = 0; i < length; i += 4) {
        unsigned v0 = map[in[i]], v1 = map[in[i + 1]], v2 = map[in[i + 2]], v3 = map[in[i + 3]];
        unsigned char bytes[3] = {
            static_cast<unsigned char>((v0 << 2) | (v1 >> 4)),
            static_cast<unsigned char>((v1 << 4) | (v2 >> 2)),
            static_cast<unsigned char>((v2 << 6) | v3),
        };
        if (i + 4 < length) {
            // Padding shortens only the last group: this one fits whole
            // (o + 3 <= data), and the bounded copy below would cost the
            // decoder half its time.
            out[o] = static_cast<char>(bytes[0]);
            out[o + 1] = static_cast<char>(bytes[1]);
            out[o + 2] = static_cast<char>(bytes[2]);
            o += 3;
            continue;
        }
        // The last group may carry only 2 or 1 bytes; `data` bounds it.
        for (int k = 0; k < 3 && o < data; k++) out[o++] = static_cast<char>(bytes[k]);
    }
    out[o] = '\0';
    if (out_size != nullptr) *out_size = data + 1;
    return out;
}

}  // namespace

extern "C" QDQ_API char *base64_encode(const char *text) {
    if (text == nullptr) return nullptr;
    return encode(reinterpret_cast<const unsigned char *>(text), std::strlen(text));
}

extern "C" QDQ_API char *base64_encode2(const unsigned char *data, int length) {
    if (length <= 0) return nullptr;
    return encode(data, static_cast<size_t>(length));
}

extern "C" QDQ_API char *base64_decode(const char *text) { return decode(text, nullptr); }

extern "C" QDQ_API char *base64_decode2(const char *text, int *out_length) {
    size_t size = 0;
    char *out = decode(text, &size);
    if (out == nullptr) return nullptr;
    if (size > static_cast<size_t>(INT_MAX)) {  // not representable for the caller
        std::free(out);
        return nullptr;
    }
    if (out_length != nullptr) *out_length = static_cast<int>(size);
    return out;
}
