// Row 3: the library's digests and codecs against libcrypto on the same
// input: MD5 (one-shot text digest and streaming), Base64, and getaes
// against an EVP AES-256-ECB encryption with the same hexadecimal output.
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "qdquick/qdquick.h"
#include "rows.h"

namespace bench {
namespace {

volatile unsigned char g_sink;  // keeps results observable to the optimiser

// `op` per second, both sides alternately, medians.
std::pair<double, double> rates(const Plan &plan, const std::function<void()> &ours,
                                const std::function<void()> &base) {
    auto r = alternate(
        plan.repeats, [&] { return Sample{rate(ours, plan.window)}; },
        [&] { return Sample{rate(base, plan.window)}; });
    return {r.first[0], r.second[0]};
}

Figure throughput(const Plan &plan, const std::string &name, size_t bytes, const std::function<void()> &ours,
                  const std::function<void()> &base, const std::string &baseline) {
    auto r = rates(plan, ours, base);
    return {"3", name, "MB/s", r.first * bytes / 1e6, r.second * bytes / 1e6, true, baseline};
}

Figure per_call(const Plan &plan, const std::string &name, const std::function<void()> &ours,
                const std::function<void()> &base, const std::string &baseline) {
    auto r = rates(plan, ours, base);
    return {"3", name, "ns/call", 1e9 / r.first, 1e9 / r.second, false, baseline};
}

void upper_hex(const unsigned char *in, size_t n, char *out) {
    static const char kHex[] = "0123456789ABCDEF";
    for (size_t i = 0; i < n; i++) {
        out[2 * i] = kHex[in[i] >> 4];
        out[2 * i + 1] = kHex[in[i] & 15];
    }
    out[2 * n] = '\0';
}

// A text of `n` printable characters (no NUL, so the text functions take it).
std::string text_of(size_t n) {
    std::mt19937 gen(42);
    std::string s(n, ' ');
    for (char &c : s) c = static_cast<char>(' ' + gen() % 95);
    return s;
}

}  // namespace

std::vector<Figure> codec_rows(const Plan &plan) {
    std::vector<Figure> out;
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    const EVP_MD *md5 = EVP_md5();
    unsigned char digest[16];
    auto openssl_md5 = [&](const void *data, size_t n) {
        EVP_DigestInit_ex(md, md5, nullptr);
        EVP_DigestUpdate(md, data, n);
        EVP_DigestFinal_ex(md, digest, nullptr);
        g_sink = digest[0];
    };

    // getmd5 as the protocol uses it: challenge code (32) + serial (16).
    const std::string proof = "0123456789ABCDEF0123456789ABCDEFSN00112233445566";
    char hex[33];
    out.push_back(per_call(
        plan, "getmd5, 48-character text", [&] { getmd5(proof.c_str(), hex), g_sink = hex[0]; },
        [&] { openssl_md5(proof.data(), proof.size()), upper_hex(digest, 16, hex), g_sink = hex[0]; },
        "EVP MD5 + upper-case hex"));

    const std::string big = text_of(1 << 20);
    out.push_back(throughput(
        plan, "getmd5, 1 MiB text", big.size(), [&] { getmd5(big.c_str(), hex), g_sink = hex[0]; },
        [&] { openssl_md5(big.data(), big.size()); }, "EVP MD5, same buffer"));
    out.push_back(throughput(
        plan, "MD5Init/Update/Final, 1 MiB", big.size(),
        [&] {
            MD5_CONTEXT ctx;
            MD5Init(&ctx);
            MD5Update(&ctx, reinterpret_cast<const unsigned char *>(big.data()), static_cast<unsigned>(big.size()));
            MD5Final(&ctx, digest);
            g_sink = digest[0];
        },
        [&] { openssl_md5(big.data(), big.size()); }, "EVP MD5, same buffer"));
    EVP_MD_CTX_free(md);

    // Base64 of a 4 KiB text (a large quick-install or push payload).
    const std::string text = text_of(4096);
    std::string encoded(4 * text.size() / 3 + 8, '\0'), decoded(text.size() + 8, '\0');
    auto *enc = reinterpret_cast<unsigned char *>(&encoded[0]);
    auto *dec = reinterpret_cast<unsigned char *>(&decoded[0]);
    const auto *raw = reinterpret_cast<const unsigned char *>(text.data());
    const int enc_len = EVP_EncodeBlock(enc, raw, static_cast<int>(text.size()));
    out.push_back(throughput(
        plan, "base64_encode, 4 KiB text", text.size(),
        [&] {
            char *r = base64_encode(text.c_str());
            g_sink = static_cast<unsigned char>(r[0]);
            std::free(r);
        },
        [&] { g_sink = static_cast<unsigned char>(EVP_EncodeBlock(enc, raw, static_cast<int>(text.size()))); },
        "EVP_EncodeBlock, same text"));
    const std::string b64(encoded.c_str(), static_cast<size_t>(enc_len));
    out.push_back(throughput(
        plan, "base64_decode, 4 KiB text", text.size(),
        [&] {
            char *r = base64_decode(b64.c_str());
            g_sink = static_cast<unsigned char>(r[0]);
            std::free(r);
        },
        [&] {
            g_sink = static_cast<unsigned char>(
                EVP_DecodeBlock(dec, reinterpret_cast<const unsigned char *>(b64.data()), enc_len));
        },
        "EVP_DecodeBlock, same text"));

    // getaes of a 200-character text; the baseline does the same job with
    // EVP (fresh context per call, PKCS padding) and the same hex output.
    const std::string plain = text_of(200);
    const char key[] = "0123456789abcdef0123456789abcdef";
    char aes_hex[2 * 224 + 1];
    auto evp_aes = [&] {
        unsigned char cipher[224];
        int n = 0, m = 0;
        EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
        EVP_EncryptInit_ex(c, EVP_aes_256_ecb(), nullptr, reinterpret_cast<const unsigned char *>(key), nullptr);
        EVP_EncryptUpdate(c, cipher, &n, reinterpret_cast<const unsigned char *>(plain.data()),
                          static_cast<int>(plain.size()));
        EVP_EncryptFinal_ex(c, cipher + n, &m);
        EVP_CIPHER_CTX_free(c);
        upper_hex(cipher, static_cast<size_t>(n + m), aes_hex);
        g_sink = static_cast<unsigned char>(aes_hex[0]);
    };
    out.push_back(per_call(
        plan, "getaes, 200-character text", [&] { getaes(plain.c_str(), aes_hex, key), g_sink = aes_hex[0]; },
        evp_aes, "EVP AES-256-ECB + hex"));
    // The same without getaes's log line: the cipher part alone.
    out.push_back(per_call(
        plan, "ez_AES_ecb_encrypt_PKCS5Padding + hex (getaes minus its log line)",
        [&] {
            unsigned char cipher[224];
            int n = 0;
            ez_AES_ecb_encrypt_PKCS5Padding(plain.c_str(), cipher, reinterpret_cast<const unsigned char *>(key),
                                            256, &n);
            upper_hex(cipher, static_cast<size_t>(n), aes_hex);
            g_sink = static_cast<unsigned char>(aes_hex[0]);
        },
        evp_aes, "EVP AES-256-ECB + hex"));
    return out;
}

}  // namespace bench
