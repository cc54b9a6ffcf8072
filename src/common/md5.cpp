// MD5 message digest (RFC 1321) under the reference implementation's names,
// and getmd5, the upper-case digest text every challenge and signature uses.
// Kept as our own code rather than a library MD5 so that the exported
// RFC-named functions behave exactly like the reference ones.
#include <cstring>

#include "qdquick/qdquick.h"

namespace {

const unsigned char PADDING[64] = {0x80};

// Shift amounts of the four rounds.
constexpr unsigned S11 = 7, S12 = 12, S13 = 17, S14 = 22;
constexpr unsigned S21 = 5, S22 = 9, S23 = 14, S24 = 20;
constexpr unsigned S31 = 4, S32 = 11, S33 = 16, S34 = 23;
constexpr unsigned S41 = 6, S42 = 10, S43 = 15, S44 = 21;

inline unsigned F(unsigned x, unsigned y, unsigned z) { return (x & y) | (~x & z); }
inline unsigned G(unsigned x, unsigned y, unsigned z) { return (x & z) | (y & ~z); }
inline unsigned H(unsigned x, unsigned y, unsigned z) { return x ^ y ^ z; }
inline unsigned I(unsigned x, unsigned y, unsigned z) { return y ^ (x | ~z); }

inline unsigned rotl(unsigned x, unsigned n) { return (x << n) | (x >> (32 - n)); }

inline void FF(unsigned &a, unsigned b, unsigned c, unsigned d, unsigned x, unsigned s, unsigned ac) {
    a = rotl(a + F(b, c, d) + x + ac, s) + b;
}
inline void GG(unsigned &a, unsigned b, unsigned c, unsigned d, unsigned x, unsigned s, unsigned ac) {
    a = rotl(a + G(b, c, d) + x + ac, s) + b;
}
inline void HH(unsigned &a, unsigned b, unsigned c, unsigned d, unsigned x, unsigned s, unsigned ac) {
    a = rotl(a + H(b, c, d) + x + ac, s) + b;
}
inline void II(unsigned &a, unsigned b, unsigned c, unsigned d, unsigned x, unsigned s, unsigned ac) {
    a = rotl(a + I(b, c, d) + x + ac, s) + b;
}

}  // namespace

static_assert(sizeof(unsigned int) == 4, "MD5 words are 32 bits");

extern "C" QDQ_API void MD5Encode(unsigned char *output, const unsigned int *input, unsigned int length) {
    for (unsigned int i = 0, j = 0; j + 3 < length; i++, j += 4) {
        output[j] = static_cast<unsigned char>(input[i] & 0xff);
        output[j + 1] = static_cast<unsigned char>((input[i] >> 8) & 0xff);
        output[j + 2] = static_cast<unsigned char>((input[i] >> 16) & 0xff);
        output[j + 3] = static_cast<unsigned char>((input[i] >> 24) & 0xff);
    }
}

extern "C" QDQ_API void MD5Decode(unsigned int *output, const unsigned char *input, unsigned int length) {
    for (unsigned int i = 0, j = 0; j + 3 < length; i++, j += 4) {
        output[i] = static_cast<unsigned int>(input[j]) | (static_cast<unsigned int>(input[j + 1]) << 8) |
                    (static_cast<unsigned int>(input[j + 2]) << 16) |
                    (static_cast<unsigned int>(input[j + 3]) << 24);
    }
}

extern "C" QDQ_API void MD5Transform(unsigned int state[4], const unsigned char block[64]) {
    unsigned int a = state[0], b = state[1], c = state[2], d = state[3], x[16];
    MD5Decode(x, block, 64);

    // Round 1
    FF(a, b, c, d, x[0], S11, 0xd76aa478);
    FF(d, a, b, c, x[1], S12, 0xe8c7b756);
    FF(c, d, a, b, x[2], S13, 0x242070db);
    FF(b, c, d, a, x[3], S14, 0xc1bdceee);
    FF(a, b, c, d, x[4], S11, 0xf57c0faf);
    FF(d, a, b, c, x[5], S12, 0x4787c62a);
    FF(c, d, a, b, x[6], S13, 0xa8304613);
    FF(b, c, d, a, x[7], S14, 0xfd469501);
    FF(a, b, c, d, x[8], S11, 0x698098d8);
    FF(d, a, b, c, x[9], S12, 0x8b44f7af);
    FF(c, d, a, b, x[10], S13, 0xffff5bb1);
    FF(b, c, d, a, x[11], S14, 0x895cd7be);
    FF(a, b, c, d, x[12], S11, 0x6b901122);
    FF(d, a, b, c, x[13], S12, 0xfd987193);
    FF(c, d, a, b, x[14], S13, 0xa679438e);
    FF(b, c, d, a, x[15], S14, 0x49b40821);

    // Round 2
    GG(a, b, c, d, x[1], S21, 0xf61e2562);
    GG(d, a, b, c, x[6], S22, 0xc040b340);
    GG(c, d, a, b, x[11], S23, 0x265e5a51);
    GG(b, c, d, a, x[0], S24, 0xe9b6c7aa);
    GG(a, b, c, d, x[5], S21, 0xd62f105d);
    GG(d, a, b, c, x[10], S22, 0x02441453);
    GG(c, d, a, b, x[15], S23, 0xd8a1e681);
    GG(b, c, d, a, x[4], S24, 0xe7d3fbc8);
    GG(a, b, c, d, x[9], S21, 0x21e1cde6);
    GG(d, a, b, c, x[14], S22, 0xc33707d6);
    GG(c, d, a, b, x[3], S23, 0xf4d50d87);
    GG(b, c, d, a, x[8], S24, 0x455a14ed);
    GG(a, b, c, d, x[13], S21, 0xa9e3e905);
    GG(d, a, b, c, x[2], S22, 0xfcefa3f8);
    GG(c, d, a, b, x[7], S23, 0x676f02d9);
    GG(b, c, d, a, x[12], S24, 0x8d2a4c8a);

    // Round 3
    HH(a, b, c, d, x[5], S31, 0xfffa3942);
    HH(d, a, b, c, x[8], S32, 0x8771f681);
    HH(c, d, a, b, x[11], S33, 0x6d9d6122);
    HH(b, c, d, a, x[14], S34, 0xfde5380c);
    HH(a, b, c, d, x[1], S31, 0xa4beea44);
    HH(d, a, b, c, x[4], S32, 0x4bdecfa9);
    HH(c, d, a, b, x[7], S33, 0xf6bb4b60);
    HH(b, c, d, a, x[10], S34, 0xbebfbc70);
    HH(a, b, c, d, x[13], S31, 0x289b7ec6);
    HH(d, a, b, c, x[0], S32, 0xeaa127fa);
    HH(c, d, a, b, x[3], S33, 0xd4ef3085);
    HH(b, c, d, a, x[6], S34, 0x04881d05);
    HH(a, b, c, d, x[9], S31, 0xd9d4d039);
    HH(d, a, b, c, x[12], S32, 0xe6db99e5);
    HH(c, d, a, b, x[15], S33, 0x1fa27cf8);
    HH(b, c, d, a, x[2], S34, 0xc4ac5665);

    // Round 4
    II(a, b, c, d, x[0], S41, 0xf4292244);
    II(d, a, b, c, x[7], S42, 0x432aff97);
    II(c, d, a, b, x[14], S43, 0xab9423a7);
    II(b, c, d, a, x[5], S44, 0xfc93a039);
    II(a, b, c, d, x[12], S41, 0x655b59c3);
    II(d, a, b, c, x[3], S42, 0x8f0ccc92);
    II(c, d, a, b, x[10], S43, 0xffeff47d);
    II(b, c, d, a, x[1], S44, 0x85845dd1);
    II(a, b, c, d, x[8], S41, 0x6fa87e4f);
    II(d, a, b, c, x[15], S42, 0xfe2ce6e0);
    II(c, d, a, b, x[6], S43, 0xa3014314);
    II(b, c, d, a, x[13], S44, 0x4e0811a1);
    II(a, b, c, d, x[4], S41, 0xf7537e82);
    II(d, a, b, c, x[11], S42, 0xbd3af235);
    II(c, d, a, b, x[2], S43, 0x2ad7d2bb);
    II(b, c, d, a, x[9], S44, 0xeb86d391);

    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    // The message words may be secret material (challenge answers).
    std::memset(x, 0, sizeof x);
}

extern "C" QDQ_API void MD5Init(MD5_CONTEXT *context) {
    context->count[0] = context->count[1] = 0;
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
}

extern "C" QDQ_API void MD5Update(MD5_CONTEXT *context, const unsigned char *input, unsigned int length) {
    unsigned int index = (context->count[0] >> 3) & 0x3f;
    // Bit count modulo 2^64, kept as two words, low word first.
    unsigned int add_low = length << 3;
    context->count[0] += add_low;
    if (context->count[0] < add_low) context->count[1]++;
    context->count[1] += length >> 29;

    unsigned int part_len = 64 - index;
    unsigned int i = 0;
    if (length >= part_len) {
        std::memcpy(&context->buffer[index], input, part_len);
        MD5Transform(context->state, context->buffer);
        for (i = part_len; i + 63 < length; i += 64) MD5Transform(context->state, &input[i]);
        index = 0;
    }
    if (length > i) std::memcpy(&context->buffer[index], &input[i], length - i);
}

extern "C" QDQ_API void MD5Final(MD5_CONTEXT *context, unsigned char digest[16]) {
    unsigned char bits[8];
    MD5Encode(bits, context->count, 8);
    // Pad to 56 bytes modulo 64, leaving room for the bit count.
    unsigned int index = (context->count[0] >> 3) & 0x3f;
    unsigned int pad_len = (index < 56) ? (56 - index) : (120 - index);
    MD5Update(context, PADDING, pad_len);
    MD5Update(context, bits, 8);
    MD5Encode(digest, context->state, 16);
    std::memset(context, 0, sizeof *context);
}

// Each byte as "%02x" would write it; by table, as sixteen snprintf calls
// cost most of a short text's getmd5.
extern "C" QDQ_API void MD5toString(const unsigned char digest[16], char *text) {
    static const char kHex[] = "0123456789abcdef";
    for (int i = 0; i < 16; i++) {
        text[2 * i] = kHex[digest[i] >> 4];
        text[2 * i + 1] = kHex[digest[i] & 0x0f];
    }
    text[32] = '\0';
}

extern "C" QDQ_API void getmd5(const char *input, char *output) {
    if (input == nullptr || output == nullptr) return;
    MD5_CONTEXT context;
    unsigned char digest[16];
    MD5Init(&context);
    // One Update over the whole text; split only where the length would not
    // fit the interface's 32-bit count.
    const unsigned char *p = reinterpret_cast<const unsigned char *>(input);
    for (size_t left = std::strlen(input); left > 0;) {
        unsigned int n = left > 0x40000000u ? 0x40000000u : static_cast<unsigned int>(left);
        MD5Update(&context, p, n);
        p += n;
        left -= n;
    }
    MD5Final(&context, digest);
    MD5toString(digest, output);
    for (int i = 0; i < 32; i++) {
        if (output[i] >= 'a' && output[i] <= 'z') output[i] = static_cast<char>(output[i] - 'a' + 'A');
    }
}
