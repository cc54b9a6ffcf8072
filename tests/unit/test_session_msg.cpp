// Boot, Register and Heartbeat messages: key order per platform type, the
// duplicate "MAC", the digests, and the values taken from the platform.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "common/json.h"
#include "platform_double.h"
#include "platintf/session_msg.h"
#include "qdquick/qdquick.h"

namespace {

std::vector<std::string> keys_of(const char *text) {
    qdq::JsonPtr obj(cJSON_Parse(text));
    std::vector<std::string> keys;
    if (obj)
        for (cJSON *it = obj->child; it; it = it->next) keys.push_back(it->string);
    return keys;
}

std::string value_of(const char *text, const char *key) {
    qdq::JsonPtr obj(cJSON_Parse(text));
    const cJSON *v = obj ? cJSON_GetObjectItemCaseSensitive(obj.get(), key) : nullptr;
    return cJSON_IsString(v) ? v->valuestring : "<none>";
}

std::string md5(const std::string &s) {
    char d[33];
    getmd5(s.c_str(), d);
    return d;
}

class SessionMsg : public ::testing::Test {
protected:
    void SetUp() override {
        qdq_test::platform().reset();
        std::memset(&deviceinfo, 0, sizeof deviceinfo);
        std::memset(&manageplatinfo, 0, sizeof manageplatinfo);
        std::snprintf(deviceinfo.model, sizeof deviceinfo.model, "HG-X1");
        std::snprintf(deviceinfo.firmwarever, sizeof deviceinfo.firmwarever, "V1.2");
        std::snprintf(deviceinfo.hardwarever, sizeof deviceinfo.hardwarever, "HW3");
        std::snprintf(deviceinfo.mac, sizeof deviceinfo.mac, "001122334455");
        std::snprintf(deviceinfo.devsn, sizeof deviceinfo.devsn, "SN1");
        std::snprintf(deviceinfo.areacode, sizeof deviceinfo.areacode, "0755");
        std::snprintf(deviceinfo.ipaddr, sizeof deviceinfo.ipaddr, "10.1.2.3");
        std::snprintf(deviceinfo.pppoename, sizeof deviceinfo.pppoename, "user@isp");
        deviceinfo.regtype = 3;
    }
    char buf[kSessionMsgSize];
};

TEST_F(SessionMsg, BootKeysPerPlatformType) {
    using V = std::vector<std::string>;
    const V cube = {"RPCMethod", "Vendor", "Model", "FirmwareVer", "HardwareVer", "MAC", "AreaCode",
                    "wevrinstatus", "MAC", "IPAddr", "PlatformID", "Br0_IP", "WanLinkMode"};
    const V manage = {"RPCMethod", "Vendor", "Model", "FirmwareVer", "HardwareVer", "MAC", "AreaCode",
                      "wevrinstatus", "MAC", "DevRND", "OsVer", "IPAddr", "PlatformID", "LOID", "Card",
                      "Br0_IP", "WanLinkMode"};
    const V plugin = {"RPCMethod", "Vendor", "Model", "FirmwareVer", "HardwareVer", "MAC", "AreaCode",
                      "wevrinstatus", "MAC", "IPAddr", "LOID", "Card", "Br0_IP", "WanLinkMode"};
    struct Case {
        int type;
        const V &keys;
        const char *method;
    } cases[] = {{1, cube, "BootFirst"}, {2, manage, "Boot"}, {3, plugin, "Boot"}, {7, cube, "BootFirst"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        ASSERT_EQ(GenerateBootMessage(c.type, buf), 0);
        EXPECT_EQ(keys_of(buf), c.keys);
        EXPECT_EQ(value_of(buf, "RPCMethod"), c.method);
        EXPECT_EQ(value_of(buf, "Vendor"), "quendara");
        EXPECT_NE(std::strchr(buf, '\n'), nullptr) << "formatted print expected";
    }
}

TEST_F(SessionMsg, BootValuesFromThePlatform) {
    auto &p = qdq_test::platform();
    p.loid = "LOID-NEW";
    p.wevrin = 1;
    p.child_router_json = R"({"childRouter":[{"mac":"AA"}],"other":1})";
    std::snprintf(deviceinfo.cardflag, sizeof deviceinfo.cardflag, "1");
    std::snprintf(deviceinfo.loid, sizeof deviceinfo.loid, "STALE");
    ASSERT_EQ(GenerateBootMessage(2, buf), 0);
    EXPECT_EQ(value_of(buf, "LOID"), "LOID-NEW");
    EXPECT_STREQ(deviceinfo.loid, "LOID-NEW");  // refreshed in the record
    EXPECT_EQ(value_of(buf, "Card"), "CARD42");
    EXPECT_EQ(value_of(buf, "wevrinstatus"), "1");
    EXPECT_EQ(value_of(buf, "Br0_IP"), "192.168.1.1");
    EXPECT_EQ(value_of(buf, "DevRND"), std::string(manageplatinfo.devrnd));
    EXPECT_EQ(std::strlen(manageplatinfo.devrnd), 32u);
    EXPECT_NE(std::string(buf).find("\"ChildRouter\":\t[{"), std::string::npos) << buf;
    // Card reader off: empty "Card", GetCardNo not asked.
    for (const char *flag : {"0", ""}) {
        std::snprintf(deviceinfo.cardflag, sizeof deviceinfo.cardflag, "%s", flag);
        p.reset();
        ASSERT_EQ(GenerateBootMessage(3, buf), 0);
        EXPECT_EQ(value_of(buf, "Card"), "");
        EXPECT_TRUE(p.calls_named("GetCardNo").empty());
    }
}

TEST_F(SessionMsg, RegisterKeysAndDigests) {
    std::snprintf(deviceinfo.loid, sizeof deviceinfo.loid, "L9");
    ASSERT_EQ(GenerateRegMessage(2, "ABC", buf), 0);
    EXPECT_EQ(keys_of(buf), (std::vector<std::string>{"RPCMethod", "CheckSN", "MAC", "UserID", "flag", "DevRND"}));
    EXPECT_EQ(value_of(buf, "CheckSN"), md5("ABCSN1"));
    EXPECT_EQ(value_of(buf, "UserID"), md5("SN1L9"));
    EXPECT_EQ(value_of(buf, "flag"), "3");
    manageplatinfo.bootflag = 1;
    ASSERT_EQ(GenerateRegMessage(2, "ABC", buf), 0);
    EXPECT_EQ(value_of(buf, "pppoename"), "user@isp");

    ASSERT_EQ(GenerateRegMessage(1, "XYZ", buf), 0);
    EXPECT_EQ(keys_of(buf), (std::vector<std::string>{"RPCMethod", "CheckSN", "MAC"}));
    EXPECT_EQ(value_of(buf, "RPCMethod"), "RegisterFirst");
    ASSERT_EQ(GenerateRegMessage(3, "XYZ", buf), 0);
    EXPECT_EQ(keys_of(buf), (std::vector<std::string>{"RPCMethod", "CheckSN"}));
    ASSERT_EQ(GenerateRegMessage(9, nullptr, buf), 0);  // no challenge: digest of the serial alone
    EXPECT_EQ(value_of(buf, "RPCMethod"), "");
    EXPECT_EQ(value_of(buf, "CheckSN"), md5("SN1"));
}

TEST_F(SessionMsg, HeartbeatFollowsFirstHeartbeatFlag) {
    char hb[kHeartbeatMsgSize];
    manageplatinfo.firsthb = 1;
    ASSERT_EQ(GenerateHeartBeatMessage(hb, 2), 0);
    EXPECT_EQ(keys_of(hb), (std::vector<std::string>{"RPCMethod", "IPAddr", "FLAG", "MAC"}));
    EXPECT_EQ(value_of(hb, "FLAG"), "1");
    manageplatinfo.firsthb = 0;
    ASSERT_EQ(GenerateHeartBeatMessage(hb, 2), 0);
    EXPECT_EQ(keys_of(hb), (std::vector<std::string>{"RPCMethod", "FLAG", "MAC"}));
    EXPECT_EQ(value_of(hb, "RPCMethod"), "Hb");
    ASSERT_EQ(GenerateHeartBeatMessage(hb, 3), 0);
    EXPECT_EQ(keys_of(hb), (std::vector<std::string>{"RPCMethod", "IPAddr", "MAC"}));
    ASSERT_EQ(GenerateHeartBeatMessage(hb, 1), 0);
    EXPECT_EQ(keys_of(hb), (std::vector<std::string>{"MAC"}));
}

TEST_F(SessionMsg, OversizedFieldsAreRefusedNotOverflowed) {
    // Every field full of characters that JSON escapes six-fold.
    std::memset(deviceinfo.model, '\x01', sizeof deviceinfo.model - 1);
    std::memset(deviceinfo.ipaddr, '\x01', sizeof deviceinfo.ipaddr - 1);
    std::memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(GenerateBootMessage(2, buf), -1);
    EXPECT_EQ(buf[0], '\0');
    char small[16];
    EXPECT_EQ(GenerateHeartBeatMessage(small, 3, sizeof small), -1);
}

TEST(GetRand, ThirtyTwoUpperHexDigits) {
    char a[33];
    getrand(a);
    ASSERT_EQ(std::strlen(a), 32u);
    for (const char *p = a; *p; ++p) EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(*p)) && !std::islower(*p));
    getrand(nullptr);  // no effect, no crash
}

}  // namespace
