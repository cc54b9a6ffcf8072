// Both Base64 decoders on any text, and both encoders' round trips. The
// first byte picks the check.
#include <cstring>

#include "common/json.h"
#include "support/harness.h"

namespace {

// Decoding any text: both decoders agree, and the size is the one the
// length and padding give.
void decode_any(const std::string &text) {
    qdq::CText plain(base64_decode(text.c_str()));
    int size = -1;
    qdq::CText counted(base64_decode2(text.c_str(), &size));
    if (!plain != !counted) qdq_fuzz::fail("the two decoders disagree on failure");
    if (!plain) {
        if (!text.empty() && text.size() % 4 == 0) qdq_fuzz::fail("well-sized text refused");
        return;
    }
    const size_t pad = text.back() != '=' ? 0 : text[text.size() - 2] == '=' ? 2 : 1;
    if (static_cast<size_t>(size) != text.size() / 4 * 3 - pad + 1) qdq_fuzz::fail("decoded size");
    if (std::memcmp(plain.get(), counted.get(), static_cast<size_t>(size)) != 0 || counted.get()[size - 1] != '\0')
        qdq_fuzz::fail("decoders differ or the result is unterminated");
}

// Encoding any bytes and decoding the text gives the bytes back.
void round_trip(const uint8_t *data, size_t size) {
    if (size == 0) return;
    qdq::CText text(base64_encode2(data, static_cast<int>(size)));
    if (!text || std::strlen(text.get()) != (size + 2) / 3 * 4) qdq_fuzz::fail("encoded length");
    int back = 0;
    qdq::CText bytes(base64_decode2(text.get(), &back));
    if (!bytes || static_cast<size_t>(back) != size + 1 || std::memcmp(bytes.get(), data, size) != 0)
        qdq_fuzz::fail("binary round trip");
    const std::string as_text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    if (as_text.empty()) return;
    qdq::CText t(base64_encode(as_text.c_str()));
    qdq::CText p(base64_decode(t ? t.get() : ""));
    if (!p || as_text != p.get()) qdq_fuzz::fail("text round trip");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    if (size < 1) return 0;
    if (data[0] & 1)
        round_trip(data + 1, size - 1);
    else
        decode_any(qdq_fuzz::text(data + 1, size - 1));
    return 0;
}
