// Text, address, JSON and character-set helpers: their exact leniency, and
// that no input overruns a caller's buffer.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

std::string main_log() { return qdq_test::read_file(qdq_test::in_root("/var/shrcadlog.txt")); }

TEST(Utils, AddressTestsAreLenient) {
    struct Case { int family; const char *text; int want; };
    const Case cases[] = {
        {2, "", 0},          {10, "", 0},         {2, "192.168.1.1", 1}, {2, "0.0.0.0", 0},
        {2, "0.1.2.3", 0},   {2, "1.2.3", 0},     {2, "300.1.1.1", 1},   {2, "1.2.3.4x", 1},
        {2, "::1", 0},       {2, "example.com", 0}, {10, "::1", 1},      {10, "localhost", 0},
        {10, "a:", 1},       {0, "fe80::1", 1},   {0, "10.0.0.1", 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(isValidIpAddress(c.family, c.text), c.want) << c.family << " " << c.text;
    EXPECT_EQ(isValidIpv4Address(nullptr), 0);
    EXPECT_EQ(isValidIpv6Address(nullptr), 0);
    EXPECT_EQ(isValidIpAddress(2, nullptr), 0);
}

TEST(Utils, NumberTextRules) {
    struct Case { const char *text; int rc; int value; };
    const Case ints[] = {{"-12", 0, -12}, {"1-2", -1, 7}, {"", 0, 0}, {"-", 0, 0},
                         {"042", 0, 42}, {" 1", -1, 7}, {"12a", -1, 7},
                         {"99999999999", 0, 2147483647}};
    for (const Case &c : ints) {
        int v = 7;
        EXPECT_EQ(str_to_int(c.text, &v), c.rc) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
    unsigned u = 7;
    EXPECT_EQ(str_to_uint("-1", &u), -1);
    EXPECT_EQ(u, 7u);
    EXPECT_EQ(str_to_uint("4000000000", &u), 0);  // taken with atoi, as the callers expect
    EXPECT_EQ(u, static_cast<unsigned>(2147483647));
    EXPECT_EQ(str_to_int(nullptr, nullptr), -1);
    EXPECT_EQ(str_to_uint("1", nullptr), -1);

    char text[16];
    std::memset(text, 'Z', sizeof text);
    const int imin = -2147483647 - 1;
    int_to_str(&imin, text);
    EXPECT_STREQ(text, "-2147483648");
    EXPECT_EQ(text[12], 'Z');
    const unsigned umax = 4294967295u;
    uint_to_str(&umax, text);
    EXPECT_STREQ(text, "4294967295");
    int_to_str(nullptr, text);  // no effect, no crash
    uint_to_str(&umax, nullptr);
}

TEST(Utils, Utf8Detection) {
    struct Case { std::string bytes; int want; };
    const Case cases[] = {
        {"abc", 0},                    {"\xC3\xA9", 1},          {"\xC3", 0},
        {"\xE4\x41\x41", 0},           {"a\xE4\xB8\xAD", 1},     {"\x80", 0},
        {"\xFE\x80\x80\x80\x80", 1},   {"\xFC\x80\x80\x80\x80\x80", 1},
        {"\xF0\x9F\x98", 0},           {std::string("\xC3\xA9\0x", 4), 1}, {"", 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(IsTextUTF8(c.bytes.data(), c.bytes.size()), c.want) << testing::PrintToString(c.bytes);
    // Only `length` bytes count: the second byte is outside.
    EXPECT_EQ(IsTextUTF8("\xC3\xA9", 1), 0);
}

TEST(Utils, MacDelimiters) {
    struct Case { const char *in; char delim; const char *want; };
    const Case del[] = {{"00:1A:2B:3C:4D:5E", ':', "001A2B3C4D5E"}, {"::", ':', ""}, {"abc", '-', "abc"}};
    for (const Case &c : del) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%s", c.in);
        EXPECT_STREQ(delmacDelimiter(buf, c.delim), c.want);
    }
    const Case set[] = {{"001A2B3C4D5E", ':', "00:1A:2B:3C:4D:5E"}, {"0011", '-', "00-11"},
                        {"001", ':', "00:1"}, {"", ':', ""}, {"0", ':', "0"}};
    for (const Case &c : set) {
        char buf[18];
        std::snprintf(buf, sizeof buf, "%s", c.in);
        EXPECT_STREQ(setmacDelimiter(buf, c.delim), c.want);
    }
}

TEST(Utils, MacHelpersStayInsideTheirBuffers) {
    // Longer than the old 32-byte scratch: handled whole, in place.
    std::string long_mac;
    for (int i = 0; i < 20; ++i) long_mac += "AB:";
    std::string buf = long_mac;
    delmacDelimiter(&buf[0], ':');
    std::string want;
    for (int i = 0; i < 20; ++i) want += "AB";
    EXPECT_EQ(std::string(buf.c_str()), want);

    // 16 digits would give 23 characters; `mac` holds 18 bytes.
    char mac[24];
    std::memset(mac, 'Z', sizeof mac);
    std::memcpy(mac, "0011223344556677", 17);
    setmacDelimiter(mac, ':');
    EXPECT_STREQ(mac, "00:11:22:33:44:55");
    for (size_t i = 18; i < sizeof mac; ++i) EXPECT_EQ(mac[i], 'Z') << i;
    EXPECT_EQ(setmacDelimiter(nullptr, ':'), nullptr);
}

TEST(Utils, JsonGetters) {
    cJSON *obj = cJSON_Parse(
        R"({"n":42,"neg":-7,"s":"42","abc":"abc","str":"hello","empty":"","nul":null,"t":true})");
    ASSERT_NE(obj, nullptr);
    struct IntCase { const char *key; int want; };
    for (const IntCase &c : {IntCase{"n", 42}, {"neg", -7}, {"s", 42}, {"abc", 0}, {"t", 0}})
        EXPECT_EQ(GetIntValueFromJson(cJSON_GetObjectItem(obj, c.key)), c.want) << c.key;

    struct CharCase { const char *key; const char *want; };
    for (const CharCase &c : {CharCase{"str", "hello"}, {"empty", "keep"}, {"nul", ""}, {"n", "keep"},
                              {"t", "keep"}}) {
        char dest[128] = "keep";
        GetCharValueFromJson(cJSON_GetObjectItem(obj, c.key), dest);
        EXPECT_STREQ(dest, c.want) << c.key;
    }
    cJSON_Delete(obj);

    // A value too long for the 128-byte contract is cut, not overrun.
    cJSON *big = cJSON_CreateString(std::string(500, 'x').c_str());
    char dest[140];
    std::memset(dest, 'Z', sizeof dest);
    GetCharValueFromJson(big, dest);
    EXPECT_EQ(std::strlen(dest), 127u);
    EXPECT_EQ(dest[128], 'Z');
    cJSON_Delete(big);

    EXPECT_EQ(GetIntValueFromJson(nullptr), 0);
    GetCharValueFromJson(nullptr, dest);
    std::string log = main_log();
    EXPECT_NE(log.find("json object is null\n"), std::string::npos);
    EXPECT_NE(log.find("json object or destbuf is null\n"), std::string::npos);
}

TEST(Utils, StringGuards) {
    char dest[8] = "old";
    EXPECT_STREQ(appPtrStrcpy(dest, "new"), "new");
    EXPECT_EQ(appPtrStrcpy(dest, nullptr), dest);
    EXPECT_STREQ(dest, "new");
    EXPECT_EQ(appPtrStrcmp("a", "a"), 0);
    EXPECT_LT(appPtrStrcmp("a", "b"), 0);
    EXPECT_EQ(appPtrStrcmp(nullptr, "b"), -1);
    std::string log = main_log();
    EXPECT_NE(log.find("appStrcpyPtr() err!destStr or srcStr is NULL!\n"), std::string::npos);
    EXPECT_NE(log.find("appPtrStrcmy() err!destStr or srcStr is NULL!\n"), std::string::npos);
}

TEST(Utils, CharsetConversion) {
    char utf[] = "\xE4\xB8\xAD\xE6\x96\x87";  // two Chinese characters
    char gb[16];
    ASSERT_EQ(u2g(utf, 6, gb, sizeof gb), 0);
    EXPECT_STREQ(gb, "\xD6\xD0\xCE\xC4");
    char back[16];
    ASSERT_EQ(g2u(gb, 4, back, sizeof back), 0);
    EXPECT_STREQ(back, utf);

    char small[4];
    EXPECT_EQ(g2u(gb, 4, small, sizeof small), -1);  // full output
    EXPECT_EQ(small[3], '\0');
    char broken[] = "\xE4\xB8";                        // incomplete sequence
    EXPECT_EQ(u2g(broken, 2, gb, sizeof gb), -1);
    EXPECT_EQ(code_convert("no-such-charset", "utf-8", gb, 1, back, sizeof back), -1);

    // 32 GB characters are 96 UTF-8 bytes: more than getUTFString's 64.
    std::string many;
    for (int i = 0; i < 32; ++i) many += "\xD6\xD0";
    char dest[72];
    std::memset(dest, 'Z', sizeof dest);
    EXPECT_EQ(getUTFString(many.c_str(), dest), -1);
    EXPECT_LT(std::strlen(dest), 64u);
    EXPECT_EQ(dest[64], 'Z');
    EXPECT_EQ(getUTFString("\xD6\xD0", dest), 0);
    EXPECT_STREQ(dest, "\xE4\xB8\xAD");
}

}  // namespace
