// AES-ECB with PKCS#5 padding for texts, and its upper-case hexadecimal form
// offered to the host (getaes / decrypt_aes). The key is always the
// caller's. The block cipher is libcrypto's, driven through EVP with its own
// padding switched off: we pad by hand, block by block, so the bytes are those
// of the raw AES block functions, which OpenSSL 3 deprecates.
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "qdquick/qdquick.h"

namespace {

constexpr int kBlock = 16;
// Work buffers of getaes and decrypt_aes.
constexpr size_t kWork = 256;
// Longest text getaes takes, so that its padded form fits kWork bytes.
constexpr size_t kMaxPlainText = 239;
// Longest hexadecimal text decrypt_aes takes (kWork bytes).
constexpr size_t kMaxHexText = 2 * kWork;

struct CtxFree {
    void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CtxFree>;

const EVP_CIPHER *ecb_cipher(int key_bits) {
    switch (key_bits) {
        case 128: return EVP_aes_128_ecb();
        case 192: return EVP_aes_192_ecb();
        case 256: return EVP_aes_256_ecb();
        default: return nullptr;
    }
}

// Readies `ctx` for ECB blocks in one direction; false when the key length is
// unsupported or the library refuses the key.
bool ecb_init(EVP_CIPHER_CTX *ctx, const unsigned char *key, int key_bits, bool encrypt) {
    const EVP_CIPHER *cipher = ecb_cipher(key_bits);
    return key != nullptr && cipher != nullptr &&
           EVP_CipherInit_ex(ctx, cipher, nullptr, key, nullptr, encrypt ? 1 : 0) == 1 &&
           EVP_CIPHER_CTX_set_padding(ctx, 0) == 1;
}

// One 16-byte block through the context (no padding, so exactly 16 out).
bool ecb_block(EVP_CIPHER_CTX *ctx, const unsigned char *in, unsigned char *out) {
    int n = 0;
    return EVP_CipherUpdate(ctx, out, &n, in, kBlock) == 1 && n == kBlock;
}

// Value of one pair of hexadecimal characters as strtoll reads it: leading
// blanks and a sign are accepted, reading stops at the first non-digit, and
// no digit at all gives 0.
unsigned char hex_pair(const char *pair) {
    char text[3] = {pair[0], pair[1], '\0'};
    return static_cast<unsigned char>(std::strtoll(text, nullptr, 16));
}

}  // namespace

// `output` must hold 16 * (strlen(input) / 16 + 1) bytes: the interface gives
// no size, so only callers with a fixed buffer (getaes) can bound the text.
extern "C" QDQ_API int ez_AES_ecb_encrypt_PKCS5Padding(const char *input, unsigned char *output,
                                                       const unsigned char *key, int key_bits,
                                                       int *out_length) {
    if (input == nullptr || output == nullptr || out_length == nullptr) return -1;
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        std::fputs("Unable to allocate memory for encrypt_string\n", stderr);
        return -1;
    }
    if (!ecb_init(ctx.get(), key, key_bits, true)) {
        std::fputs("Unable to set encryption key in AES\n", stderr);
        return -1;
    }
    const size_t length = std::strlen(input);
    // The text and its padding (the 1..16 missing bytes, each of their
    // count; an exact multiple gets a whole block of 16s) are laid out in
    // `output` and encrypted there in place by one call: ECB blocks are
    // independent, so the bytes are those of block-by-block encryption.
    const size_t total = (length / kBlock + 1) * kBlock;
    if (total > static_cast<size_t>(INT_MAX)) return -1;
    std::memmove(output, input, length);
    std::memset(output + length, static_cast<int>(total - length), total - length);
    int n = 0;
    if (EVP_CipherUpdate(ctx.get(), output, &n, output, static_cast<int>(total)) != 1 ||
        static_cast<size_t>(n) != total) {
        OPENSSL_cleanse(output, total);
        std::fputs("Unable to set encryption key in AES\n", stderr);
        return -1;
    }
    *out_length += static_cast<int>(total);
    // No "outlen=" diagnostic on standard output: a library does not own the
    // host's stdout, and strlen of ciphertext means nothing anyway.
    return 0;
}

extern "C" QDQ_API int getaes(const char *input, char *hex_out, const char *key) {
    if (input == nullptr || hex_out == nullptr || key == nullptr) return -1;
    // The key is 32 raw bytes, not necessarily NUL-terminated.
    QDQ_LOG("in:%s\tkey:%.32s", input, key);
    size_t length = std::strlen(input);
    if (length > kMaxPlainText) {
        // Would overflow the fixed work buffer.
        QDQ_LOG("getaes: input of %zu characters is too long\n", length);
        return -1;
    }
    unsigned char work[kWork];
    int out_length = 0;
    int rc = ez_AES_ecb_encrypt_PKCS5Padding(input, work, reinterpret_cast<const unsigned char *>(key), 256,
                                             &out_length);
    if (rc != 0) return -1;
    static const char kHex[] = "0123456789ABCDEF";
    for (int i = 0; i < out_length; i++) {
        hex_out[2 * i] = kHex[work[i] >> 4];
        hex_out[2 * i + 1] = kHex[work[i] & 0x0f];
    }
    hex_out[2 * out_length] = '\0';
    return 0;
}

extern "C" QDQ_API int decrypt_aes(const char *hex_in, char *text_out, const char *key) {
    if (hex_in == nullptr || text_out == nullptr || key == nullptr) return -1;
    size_t length = std::strlen(hex_in);
    // A multiple of 16 characters (half a block) is accepted; a trailing half
    // block is ignored.
    if (length % kBlock != 0) return -1;
    if (length > kMaxHexText) {
        QDQ_LOG("decrypt_aes: input of %zu characters is too long\n", length);
        return -1;
    }
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    if (!ctx || !ecb_init(ctx.get(), reinterpret_cast<const unsigned char *>(key), 256, false)) {
        QDQ_LOG("decrypt_aes: unable to set decryption key\n");
        return -1;
    }
    unsigned char work[kWork];
    size_t bytes = length / 2;
    for (size_t i = 0; i < bytes; i++) work[i] = hex_pair(hex_in + 2 * i);

    size_t o = 0;
    unsigned char plain[kBlock];
    int rc = 0;
    for (size_t b = 0; b + kBlock <= bytes; b += kBlock) {
        if (!ecb_block(ctx.get(), work + b, plain)) {
            rc = -1;
            break;
        }
        // Padding bytes (1..16) go wherever they are, and with them zero
        // bytes and control characters below 17 of the text itself.
        for (unsigned char c : plain) {
            if (c >= 17) text_out[o++] = static_cast<char>(c);
        }
    }
    text_out[o] = '\0';
    OPENSSL_cleanse(plain, sizeof plain);
    OPENSSL_cleanse(work, sizeof work);
    return rc;
}
