// UTF-8 detection and UTF-8 <-> GB2312 conversion (iconv).
#include <iconv.h>

#include <cstring>

#include "qdquick/qdquick.h"

namespace {
// getUTFString's destination size.
constexpr std::size_t kUtfTextSize = 64;

// Total length of the sequence a lead byte with the high bit set opens, or
// 0 for a continuation byte, which cannot open one. 0xFE and 0xFF count as
// five-byte leads: the check is deliberately as lenient as the devices that
// produce the text.
int sequence_length(unsigned char lead) {
    if (lead >= 0xFC && lead <= 0xFD) return 6;
    if (lead >= 0xF8) return 5;
    if (lead >= 0xF0) return 4;
    if (lead >= 0xE0) return 3;
    if (lead >= 0xC0) return 2;
    return 0;
}
}  // namespace

// 1 only for well-formed multi-byte text: pure ASCII answers 0, because the
// callers want to know whether a conversion is needed at all.
extern "C" QDQ_API int IsTextUTF8(const char *bytes, unsigned long length) {
    if (bytes == nullptr) return 0;
    int pending = 0;
    bool high_seen = false;
    for (unsigned long i = 0; i < length; ++i) {
        unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (pending > 0) {
            if ((c & 0xC0) != 0x80) return 0;
            --pending;
            continue;
        }
        if (c < 0x80) continue;
        high_seen = true;
        int total = sequence_length(c);
        if (total == 0) return 0;
        pending = total - 1;
    }
    return (pending == 0 && high_seen) ? 1 : 0;
}

// One iconv pass into all `out_len` bytes: a conversion that fills `out`
// exactly succeeds, and its result is then not terminated (the caller
// sized `out`; getUTFString keeps a byte back for the terminator).
extern "C" QDQ_API int code_convert(const char *from, const char *to, char *in, size_t in_len,
                                    char *out, size_t out_len) {
    if (from == nullptr || to == nullptr || in == nullptr || out == nullptr || out_len == 0) return -1;
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1) || cd == nullptr) return -1;
    std::memset(out, 0, out_len);
    char *in_p = in;
    size_t in_left = in_len;
    char *out_p = out;
    size_t out_left = out_len;
    size_t rc = iconv(cd, &in_p, &in_left, &out_p, &out_left);
    iconv_close(cd);
    return rc == static_cast<size_t>(-1) ? -1 : 0;
}

extern "C" QDQ_API int u2g(char *in, size_t in_len, char *out, size_t out_len) {
    return code_convert("utf-8", "gb2312", in, in_len, out, out_len);
}

extern "C" QDQ_API int g2u(char *in, size_t in_len, char *out, size_t out_len) {
    return code_convert("gb2312", "utf-8", in, in_len, out, out_len);
}

extern "C" QDQ_API int getUTFString(const char *src, char *dest) {
    if (src == nullptr || dest == nullptr) return -1;
    // iconv's input pointer is not const but the text is only read. The
    // result is used as text: one byte of the 64 stays for its terminator.
    dest[kUtfTextSize - 1] = '\0';
    return g2u(const_cast<char *>(src), std::strlen(src), dest, kUtfTextSize - 1);
}
