// Digests and codecs against published vectors (RFC 1321's suite, RFC 4648
// section 10, FIPS-197 / SP 800-38A AES-256) and cross-checked against an
// independent tool (openssl, coreutils' base64) on the same bytes; the
// decoders also get hostile text (meant to run under the sanitizers too).
#include <gtest/gtest.h>
#include <stdio.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

// Stdout of `command` fed `input`, or nothing when the tool fails or is missing.
std::optional<std::string> run_tool(const std::string &command, const std::string &input) {
    const std::string file = qdq_test::in_root("/tmp/tool-input");
    qdq_test::write_file(file, input);
    FILE *p = popen((command + " < '" + file + "' 2>/dev/null").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p == nullptr || pclose(p) != 0) return std::nullopt;
    return out;
}

std::string random_bytes(size_t n, unsigned seed, int lo = 0, int hi = 255) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(lo, hi);
    std::string s(n, '\0');
    for (char &c : s) c = static_cast<char>(dist(gen));
    return s;
}

std::string to_hex(const std::string &bytes) {
    std::string out;
    for (unsigned char c : bytes) out += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    return out;
}

std::string from_hex(const std::string &hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

// ---- MD5 -------------------------------------------------------------------

TEST(Md5, Rfc1321Suite) {
    const std::pair<const char *, const char *> suite[] = {
        {"", "D41D8CD98F00B204E9800998ECF8427E"},
        {"a", "0CC175B9C0F1B6A831C399E269772661"},
        {"abc", "900150983CD24FB0D6963F7D28E17F72"},
        {"message digest", "F96B697D7CB7938D525A2F31AAF161D0"},
        {"abcdefghijklmnopqrstuvwxyz", "C3FCD3D76192E4007DFB496CCA67E13B"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "D174AB98D277D9F5A5611C2C9F419D9F"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57EDF4A22BE3C955AC49DA2E2107B67A"},
    };
    for (const auto &[input, want] : suite) {
        char out[33];
        getmd5(input, out);  // upper case; MD5toString's lower case is checked below
        EXPECT_STREQ(out, want) << input;
    }
}

TEST(Md5, PaddingBoundariesAndSplitUpdatesMatchOpenssl) {
    for (size_t len : {1, 55, 56, 57, 63, 64, 65, 119, 120, 300}) {
        const std::string text = random_bytes(len, static_cast<unsigned>(len), 1, 255);
        auto tool = run_tool("openssl dgst -md5 -r", text);  // "<hex> *stdin"
        if (!tool) GTEST_SKIP() << "openssl tool not available";
        const std::string want = tool->substr(0, 32);
        const auto *p = reinterpret_cast<const unsigned char *>(text.data());
        for (size_t split = 0; split <= len; split += 7) {  // two updates, then the rest
            MD5_CONTEXT ctx;
            unsigned char digest[16];
            char got[33];
            MD5Init(&ctx);
            MD5Update(&ctx, p, static_cast<unsigned>(split / 2));
            MD5Update(&ctx, p + split / 2, static_cast<unsigned>(split - split / 2));
            MD5Update(&ctx, p + split, static_cast<unsigned>(len - split));
            MD5Final(&ctx, digest);
            MD5toString(digest, got);
            ASSERT_EQ(got, want) << len << " split at " << split;
        }
    }
}

// ---- Base64 ----------------------------------------------------------------

using Owned = std::unique_ptr<char, decltype(&free)>;
Owned own(char *p) { return Owned(p, &free); }
Owned encode2(const std::string &s) {
    return own(base64_encode2(reinterpret_cast<const unsigned char *>(s.data()), static_cast<int>(s.size())));
}

TEST(Base64, Rfc4648VectorsBothWaysAndBothVariants) {
    const std::pair<std::string, const char *> vectors[] = {
        {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
    for (const auto &[plain, coded] : vectors) {
        EXPECT_STREQ(own(base64_encode(plain.c_str())).get(), coded);
        EXPECT_STREQ(encode2(plain).get(), coded);
        EXPECT_STREQ(own(base64_decode(coded)).get(), plain.c_str());
    }
    EXPECT_FALSE(own(base64_encode("")));
    EXPECT_FALSE(encode2(""));
}

TEST(Base64, CountedVariantsRoundTripEveryByteValueAndMatchCoreutils) {
    std::string all;
    for (int i = 0; i < 512; i++) all += static_cast<char>(i & 0xff);
    for (size_t len : {1, 2, 3, 4, 5, 6, 57, 58, 59, 256, 511, 512}) {  // every padding, every byte value
        const std::string data = all.substr(all.size() - len);
        auto want = run_tool("base64 -w0", data);
        if (!want) GTEST_SKIP() << "base64 tool not available";
        EXPECT_EQ(std::string(encode2(data).get()), *want) << len;
        int size = 0;
        auto back = own(base64_decode2(want->c_str(), &size));
        ASSERT_EQ(size, static_cast<int>(len) + 1);  // the terminator is counted
        EXPECT_EQ(std::string(back.get(), size), data + '\0');
    }
}

TEST(Base64, DecoderRefusesBadLengthsAndSurvivesHostileText) {
    for (const char *bad : {"", "T", "TWF", "TWFuT", "TWFu=="}) EXPECT_FALSE(own(base64_decode(bad))) << bad;
    // Padding-only or over-padded text: the size never underflows.
    const std::pair<const char *, int> padded[] = {{"====", 2}, {"A===", 2}, {"TQ==", 2}, {"==A=", 3}, {"AAAA====", 5}};
    for (const auto &[text, size] : padded) {
        int got = 0;
        EXPECT_TRUE(own(base64_decode2(text, &got))) << text;
        EXPECT_EQ(got, size) << text;
    }
    for (int c = 1; c < 256; c++) {  // any byte inside a group still gives 3 bytes
        std::string text = "QUJD" + std::string(1, static_cast<char>(c)) + "UJD";
        int got = 0;
        EXPECT_TRUE(own(base64_decode2(text.c_str(), &got)));
        EXPECT_EQ(got, 7);
    }
}

// ---- AES-256-ECB -------------------------------------------------------------

// decrypt_aes drops every byte below 17: padding, zeros and control characters.
std::string without_controls(const std::string &s) {
    std::string out;
    for (unsigned char c : s)
        if (c >= 17) out += static_cast<char>(c);
    return out;
}

// decrypt_aes's text, or "rc=<code>" when it fails.
std::string decrypt(const std::string &hex, const std::string &key) {
    char out[257];
    const int rc = decrypt_aes(hex.c_str(), out, key.data());
    return rc == 0 ? std::string(out) : "rc=" + std::to_string(rc);
}

TEST(Aes, KnownAnswersThroughTheLibrary) {
    // SP 800-38A F.1.5: no plaintext byte is zero, so it passes as a text.
    const std::string key = from_hex("603DEB1015CA71BE2B73AEF0857D77811F352C073B6108D72D9810A30914DFF4");
    const std::string plain = from_hex("6BC1BEE22E409F96E93D7E117393172AAE2D8A571E03AC9C9EB76FAC45AF8E51"
                                       "30C81C46A35CE411E5FBC1191A0A52EFF69F2445DF4F9B17AD2B417BE66C3710");
    const std::string cipher = "F3EED1BDB5D2A03C064B5A7E3DB181F8591CCB10D410ED26DC5BA74A31362870"
                               "B6ED21B99CA6F4F9F153E7B1BEAFED1D23304B7A39F9F3FF067D8D8F9E24ECC7";
    char hex[161];
    ASSERT_EQ(getaes(plain.c_str(), hex, key.c_str()), 0);
    EXPECT_EQ(std::string(hex).substr(0, 128), cipher);  // then a whole padding block
    EXPECT_EQ(decrypt(cipher, key), without_controls(plain));
    // FIPS-197 C.3: key 000102..1F, plaintext 00112233...FF (back without its 0x00).
    std::string fips_key;
    for (int i = 0; i < 32; i++) fips_key += static_cast<char>(i);
    EXPECT_EQ(decrypt("8EA2B7CA516745BFEAFC49904B496089", fips_key), from_hex("112233445566778899AABBCCDDEEFF"));
}

TEST(Aes, HexLengthRulesAndBadInput) {
    const std::string key(32, 'k');
    char hex[481];
    EXPECT_EQ(getaes(std::string(240, 'q').c_str(), hex, key.c_str()), -1);  // work buffer too small
    ASSERT_EQ(getaes("hello, gateway", hex, key.c_str()), 0);
    const std::string one_block = hex;
    const std::pair<std::string, int> cases[] = {
        {one_block.substr(0, 24), -1}, {std::string(528, 'A'), -1},  // not whole half blocks; too long
        {std::string(512, 'A'), 0}, {"-1 0x+fG\x7f\x80" + std::string(22, '9'), 0}};
    for (const auto &[text, rc] : cases) {
        char out[257];
        EXPECT_EQ(decrypt_aes(text.c_str(), out, key.c_str()), rc) << text;
    }
    EXPECT_EQ(decrypt(one_block + "0123456789ABCDEF", key), "hello, gateway");  // a trailing half block is ignored
}

TEST(Aes, HexRoundTripAndOpensslToolAgree) {
    // 15 characters give one block, 16 a second one of padding only.
    const std::string texts[] = {"", std::string(15, 'x'), std::string(16, 'x'), std::string(239, 'q'),
                                 "t\ta\nb\x10\x11" + random_bytes(90, 1, 1, 255)};
    for (const std::string &text : texts) {
        const std::string key = random_bytes(32, static_cast<unsigned>(text.size()));
        auto want = run_tool("openssl enc -aes-256-ecb -nosalt -K " + to_hex(key), text);
        if (!want) GTEST_SKIP() << "openssl tool not available";
        char hex[481];
        ASSERT_EQ(getaes(text.c_str(), hex, key.data()), 0);
        EXPECT_EQ(std::string(hex), to_hex(*want));
        EXPECT_EQ(decrypt(hex, key), without_controls(text));
    }
}

}  // namespace
