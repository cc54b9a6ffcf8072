// Base64 against RFC 4648's vectors and coreutils' base64, binary round trips
// and hostile decoder input (meant to run under the sanitizers too).
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "codec_tools.h"
#include "qdquick/qdquick.h"

namespace {

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
    for (size_t len = 1; len <= all.size(); len += (len < 70 ? 1 : 61)) {
        const std::string data = all.substr(all.size() - len);
        int size = 0;
        auto back = own(base64_decode2(encode2(data).get(), &size));
        ASSERT_EQ(size, static_cast<int>(len) + 1);  // the terminator is counted
        EXPECT_EQ(std::string(back.get(), size), data + '\0');
    }
    for (unsigned seed = 1; seed <= 6; seed++) {
        const std::string data = codec_test::random_bytes(seed * 29 + seed % 3, seed);
        auto want = codec_test::run_tool("base64 -w0", data);
        if (!want) GTEST_SKIP() << "base64 tool not available";
        EXPECT_EQ(std::string(encode2(data).get()), *want);
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

}  // namespace
