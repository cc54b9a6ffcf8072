// Device facts, push log and stored token of the real adapter.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "qdquick/qdplatform.h"
#include "test_env.h"

using qdq_test::in_root;
using qdq_test::read_file;
using qdq_test::write_file;

namespace {

void write_device(const std::string &content) {
    mkdir(in_root("/etc/qdplatform").c_str(), 0755);
    write_file(in_root("/etc/qdplatform/device.conf"), content);
}

TEST(Device, ReadsFactsAndCutsLongTexts) {
    const std::string long_loid(QDP_LOID_SIZE + 20, 'L');
    write_device("loid=" + long_loid + "\ncardno=8986\nwevrin=1\nbr0ip=192.168.1.1\n" +
                 "wanlinkmode=123456789\nchildrouter={\"count\": 1, \"list\": [\"a\"]}\n");
    // Exact sizes: the sanitizer build sees any overrun.
    char loid[QDP_LOID_SIZE], card[QDP_CARDNO_SIZE], br0[QDP_BR0IP_SIZE], mode[QDP_WANLINKMODE_SIZE];
    EXPECT_EQ(GetLoidInfo(loid), 0);
    EXPECT_EQ(std::string(loid), long_loid.substr(0, QDP_LOID_SIZE - 1));
    EXPECT_EQ(GetCardNo(card), 0);
    EXPECT_STREQ(card, "8986");
    EXPECT_EQ(get_wevrin_status(), 1);
    EXPECT_EQ(gghelper_opmode_repeatermode_get(br0, mode), 0);
    EXPECT_STREQ(br0, "192.168.1.1");
    EXPECT_STREQ(mode, "1234567");
    cJSON *req = CreateQueryUpdateverReqjson();
    char *text = cJSON_PrintUnformatted(req);
    EXPECT_STREQ(text, "{\"childRouter\":{\"count\":1,\"list\":[\"a\"]}}");
    cJSON_free(text);
    cJSON_Delete(req);
}

TEST(Device, DefaultsWithoutFileOrValidJson) {
    std::remove(in_root("/etc/qdplatform/device.conf").c_str());
    char loid[QDP_LOID_SIZE] = "stale", card[QDP_CARDNO_SIZE] = "stale";
    char br0[QDP_BR0IP_SIZE] = "stale", mode[QDP_WANLINKMODE_SIZE] = "stale";
    EXPECT_EQ(GetLoidInfo(loid), 0);
    EXPECT_EQ(GetCardNo(card), 0);
    EXPECT_EQ(gghelper_opmode_repeatermode_get(br0, mode), 0);
    EXPECT_EQ(std::string(loid) + card + br0 + mode, "");
    EXPECT_EQ(get_wevrin_status(), 0);
    EXPECT_EQ(CreateQueryUpdateverReqjson(), nullptr);
    write_device("wevrin=2\nchildrouter={} trailing\n");
    EXPECT_EQ(CreateQueryUpdateverReqjson(), nullptr);
    EXPECT_EQ(get_wevrin_status(), 0);
}

TEST(Push, AppendsOneBoundedLinePerMessage) {
    upgrademsg msg;
    memset(&msg, 'V', sizeof msg);  // no field NUL-terminated
    msg.failed = 1;
    memcpy(msg.errcode, "5\n\"x", 5);
    ASSERT_EQ(HgPushUpgradeMessage(0, &msg), 0);
    upgrademsg ok {};
    snprintf(ok.name, sizeof ok.name, "app");
    ASSERT_EQ(HgPushUpgradeMessage(3, &ok), 0);
    EXPECT_EQ(HgPushUpgradeMessage(0, nullptr), -1);
    std::string log = read_file(in_root("/var/qdplatform_push.log"));
    const std::string v32(32, 'V'), v64(64, 'V');
    EXPECT_NE(log.find(" type=0 failed=1 version=\"" + v32 + "\" errcode=\"5??x\" upgradeid=\"" +
                       v64 + "\" name=\"" + v64 + "\"\n"),
              std::string::npos) << log;
    EXPECT_NE(log.find(" type=3 failed=0 version=\"\" errcode=\"\" upgradeid=\"\" name=\"app\"\n"),
              std::string::npos) << log;
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
}

TEST(Token, ReadsFirstLineUpToTheBound) {
    const std::string file = in_root("/qdconf/app_store_token");
    char out[QDP_TOKEN_SIZE] = "stale";
    EXPECT_EQ(PlatGetStoredToken(out), 0);  // no file yet
    EXPECT_STREQ(out, "");
    write_file(file, "tok-123\r\nsecond\n");
    EXPECT_EQ(PlatGetStoredToken(out), 0);
    EXPECT_STREQ(out, "tok-123");
    write_file(file, std::string(QDP_TOKEN_SIZE + 5, 't'));
    EXPECT_EQ(PlatGetStoredToken(out), 0);
    EXPECT_EQ(std::string(out), std::string(QDP_TOKEN_SIZE - 1, 't'));
}

}  // namespace
