// MD5 against RFC 1321's suite, and against the openssl tool around the
// padding boundaries with the input split over several updates.
#include <gtest/gtest.h>

#include <string>

#include "codec_tools.h"
#include "qdquick/qdquick.h"

namespace {

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
    char out[33];
    for (const auto &[input, want] : suite) {
        getmd5(input, out);
        EXPECT_STREQ(out, want) << input;
    }
    const unsigned char abc[16] = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f, 0xb0,
                                   0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
    MD5toString(abc, out);  // only getmd5 raises the case
    EXPECT_STREQ(out, "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5, PaddingBoundariesAndSplitUpdatesMatchOpenssl) {
    for (size_t len : {1, 55, 56, 57, 63, 64, 65, 119, 120, 300}) {
        const std::string text = codec_test::random_bytes(len, static_cast<unsigned>(len), 1, 255);
        auto tool = codec_test::run_tool("openssl dgst -md5 -r", text);  // "<hex> *stdin"
        if (!tool) GTEST_SKIP() << "openssl tool not available";
        const std::string want = tool->substr(0, 32);
        char got[33];
        for (size_t split = 0; split <= len; split += 7) {  // two updates, then the rest
            MD5_CONTEXT ctx;
            unsigned char digest[16];
            const auto *p = reinterpret_cast<const unsigned char *>(text.data());
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

}  // namespace
