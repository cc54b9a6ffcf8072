// AES-ECB codec against FIPS-197 / SP 800-38A known answers and the openssl
// tool's PKCS padding, and the hexadecimal round trip with its length rules.
#include <gtest/gtest.h>

#include <string>

#include "codec_tools.h"
#include "qdquick/qdquick.h"

namespace {

using codec_test::from_hex;
using codec_test::to_hex;

std::string without_controls(const std::string &s) {
    std::string out;
    for (unsigned char c : s)
        if (c >= 17) out += static_cast<char>(c);
    return out;
}

std::string decrypt(const std::string &hex, const std::string &key, int *rc) {
    char out[257];
    *rc = decrypt_aes(hex.c_str(), out, key.c_str());
    return *rc == 0 ? out : "";
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
    EXPECT_EQ(std::string(hex).substr(0, 128), cipher);
    EXPECT_EQ(strlen(hex), 160u);  // block-sized text gets a whole padding block
    int rc = -1;                    // 0x03, 0x0A and 0x10 of the plaintext are dropped
    EXPECT_EQ(decrypt(cipher, key, &rc), without_controls(plain));
    std::string fips_key;  // FIPS-197 C.3: 00112233...FF returns without its 0x00
    for (int i = 0; i < 32; i++) fips_key += static_cast<char>(i);
    EXPECT_EQ(decrypt("8EA2B7CA516745BFEAFC49904B496089", fips_key, &rc), from_hex("112233445566778899AABBCCDDEEFF"));
}

TEST(Aes, HexLengthRulesAndBadInput) {
    const std::string key(32, 'k');
    char hex[481];
    ASSERT_EQ(getaes("hello, gateway", hex, key.c_str()), 0);
    EXPECT_EQ(getaes(std::string(240, 'q').c_str(), hex, key.c_str()), -1);  // work buffer too small
    const std::string one_block = hex;
    const std::pair<std::string, int> cases[] = {
        {one_block.substr(0, 24), -1}, {one_block + "0123456789ABCDEF", 0}, {std::string(528, 'A'), -1},
        {std::string(512, 'A'), 0}, {"-1 0x+fG\x7f\x80" + std::string(22, '9'), 0}};
    for (const auto &[text, want] : cases) {
        int rc = 9;
        std::string got = decrypt(text, key, &rc);
        EXPECT_EQ(rc, want) << text;
        if (text.size() == 48) {
            EXPECT_EQ(got, "hello, gateway");  // last half block ignored
        }
    }
}

TEST(Aes, HexRoundTripAndOpensslToolAgree) {
    // 15 characters give one block, 16 a second one of padding only.
    const std::string texts[] = {"", std::string(15, 'x'), std::string(16, 'x'), std::string(239, 'q'),
                                 "t\ta\nb\x10\x11" + codec_test::random_bytes(90, 1, 1, 255)};
    for (const std::string &text : texts) {
        const std::string key = codec_test::random_bytes(32, static_cast<unsigned>(text.size()));
        auto want = codec_test::run_tool("openssl enc -aes-256-ecb -nosalt -K " + to_hex(key), text);
        if (!want) GTEST_SKIP() << "openssl tool not available";
        char hex[481];
        ASSERT_EQ(getaes(text.c_str(), hex, key.data()), 0);
        EXPECT_EQ(std::string(hex), to_hex(*want));
        EXPECT_EQ(strlen(hex), 32 * (text.size() / 16 + 1));
        int rc = -1;
        EXPECT_EQ(decrypt(hex, key, &rc), without_controls(text));
    }
}

}  // namespace
