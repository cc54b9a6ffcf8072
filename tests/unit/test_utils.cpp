// Text, address, JSON and character-set helpers: their exact leniency, and
// that no input overruns a caller's buffer.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qdquick/qdquick.h"

namespace {

TEST(Utils, AddressTestsAreLenient) {
    struct Case { int family; const char *text; int want; };
    for (const Case &c : {Case{2, "", 0}, {10, "", 0}, {2, "192.168.1.1", 1}, {2, "0.0.0.0", 0},
                          {2, "0.1.2.3", 0}, {2, "1.2.3", 0}, {2, "300.1.1.1", 1}, {2, "1.2.3.4x", 1},
                          {2, "::1", 0}, {10, "::1", 1}, {10, "localhost", 0}, {0, "fe80::1", 1}})
        EXPECT_EQ(isValidIpAddress(c.family, c.text), c.want) << c.family << " " << c.text;
    EXPECT_EQ(isValidIpAddress(2, nullptr), 0);
}

TEST(Utils, NumberText) {
    struct Case { const char *text; int rc; int value; };
    for (const Case &c : {Case{"-12", 0, -12}, {"1-2", -1, 7}, {"", 0, 0}, {"-", 0, 0}, {" 1", -1, 7},
                          {"99999999999", 0, 2147483647}}) {
        int v = 7;
        EXPECT_EQ(str_to_int(c.text, &v), c.rc) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
    unsigned u = 7;
    EXPECT_EQ(str_to_uint("-1", &u), -1);
    EXPECT_EQ(str_to_uint("4000000000", &u), 0);  // read as signed, as the callers expect
    EXPECT_EQ(u, 2147483647u);
}

TEST(Utils, Utf8Detection) {
    struct Case { std::string bytes; int want; };
    for (const Case &c : {Case{"abc", 0}, {"\xC3\xA9", 1}, {"\xC3", 0}, {"\xE4\x41\x41", 0}, {"\x80", 0},
                          {"\xFE\x80\x80\x80\x80", 1}, {"\xF0\x9F\x98", 0}, {std::string("\xC3\xA9\0", 3), 1}})
        EXPECT_EQ(IsTextUTF8(c.bytes.data(), c.bytes.size()), c.want) << testing::PrintToString(c.bytes);
    EXPECT_EQ(IsTextUTF8("\xC3\xA9", 1), 0);  // only `length` bytes count
}

TEST(Utils, MacDelimitersStayInsideTheBuffer) {
    char buf[24] = "00:1A:2B:3C:4D:5E";
    EXPECT_STREQ(delmacDelimiter(buf, ':'), "001A2B3C4D5E");
    EXPECT_STREQ(setmacDelimiter(buf, '-'), "00-1A-2B-3C-4D-5E");
    // 16 digits would make 23 characters; `mac` holds 18 bytes.
    std::memcpy(buf, "0011223344556677\0ZZZZZZ", sizeof buf);
    EXPECT_STREQ(setmacDelimiter(buf, ':'), "00:11:22:33:44:55");
    EXPECT_STREQ(buf + 18, "ZZZZZ");
}

TEST(Utils, JsonGetters) {
    const std::string json = R"({"n":42,"s":"42","abc":"abc","str":"hi","empty":"","nul":null,"big":")" +
                             std::string(500, 'x') + "\"}";
    const std::string cut(127, 'x');  // a value past the 128-byte contract is cut, not overrun
    cJSON *obj = cJSON_Parse(json.c_str());
    ASSERT_NE(obj, nullptr);
    struct Case { const char *key; int num; const char *text; };
    for (const Case &c : {Case{"n", 42, "keep"}, {"s", 42, "42"}, {"abc", 0, "abc"}, {"str", 0, "hi"},
                          {"empty", 0, "keep"}, {"nul", 0, ""}, {"big", 0, cut.c_str()}}) {
        char dest[128] = "keep";
        GetCharValueFromJson(cJSON_GetObjectItem(obj, c.key), dest);
        EXPECT_STREQ(dest, c.text) << c.key;
        EXPECT_EQ(GetIntValueFromJson(cJSON_GetObjectItem(obj, c.key)), c.num) << c.key;
    }
    cJSON_Delete(obj);
}

TEST(Utils, CharsetConversion) {
    char utf[] = "\xE4\xB8\xAD\xE6\x96\x87", gb[16], small[4];
    ASSERT_EQ(u2g(utf, 6, gb, sizeof gb), 0);
    EXPECT_STREQ(gb, "\xD6\xD0\xCE\xC4");
    EXPECT_EQ(g2u(gb, 4, small, sizeof small), -1);  // full output, still terminated
    EXPECT_EQ(small[3], '\0');
    char exact[6];  // the conversion fills it to the last byte: success
    ASSERT_EQ(g2u(gb, 4, exact, sizeof exact), 0);
    EXPECT_EQ(std::string(exact, sizeof exact), std::string(utf, 6));
    EXPECT_EQ(u2g(utf, 6, exact, 4), 0);
    EXPECT_EQ(std::string(exact, 4), "\xD6\xD0\xCE\xC4");
    EXPECT_EQ(u2g(utf, 2, gb, sizeof gb), -1);         // incomplete sequence
    // 32 GB2312 characters are 96 UTF-8 bytes, more than getUTFString's 64.
    std::string many;
    for (int i = 0; i < 32; ++i) many += "\xD6\xD0";
    char dest[72];
    std::memset(dest, 'Z', sizeof dest);
    EXPECT_EQ(getUTFString(many.c_str(), dest), -1);
    EXPECT_EQ(dest[64], 'Z');
    EXPECT_LT(std::strlen(dest), 64u);
}

}  // namespace
