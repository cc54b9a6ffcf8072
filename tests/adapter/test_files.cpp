// The real adapter's file-backed functions: key=value configuration files,
// UCI option reads, device facts, the push log and the stored token.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qdquick/qdplatform.h"
#include "test_env.h"

namespace {

using qdq_test::in_root;
using qdq_test::read_file;
using qdq_test::write_file;

const char *kConf = "/etc/config/system/quickconf.conf";

TEST(Cfgx, ReplacesOrAppendsAndKeepsOtherLines) {
    struct Case {
        const char *before, *key, *value, *after;
    } cases[] = {
        {nullptr, "manageplataddr", "a.example", "manageplataddr=a.example\n"},
        {"x=1\ncomment line\ny=2\n", "y", "3", "x=1\ncomment line\ny=3\n"},
        {"x=1\ny=2", "z", "", "x=1\ny=2\nz=\n"},
        {"xy=1\nx=2\nx=3\n", "x", "9", "xy=1\nx=9\n"},
        {"x=1\r\n", "x", "a b=c", "x=a b=c\n"},
    };
    for (const Case &c : cases) {
        std::remove(in_root(kConf).c_str());
        if (c.before != nullptr) write_file(in_root(kConf), c.before);
        ASSERT_EQ(setcfgx(kConf, c.key, c.value), 0) << c.key;
        EXPECT_EQ(read_file(in_root(kConf)), c.after);
        char value[QDP_CFGVALUE_SIZE];
        EXPECT_EQ(getcfgx(kConf, c.key, value), 0);
        EXPECT_STREQ(value, c.value);
    }
    namespace fs = std::filesystem;  // no temporary file left beside it
    EXPECT_EQ(std::distance(fs::directory_iterator(in_root("/etc/config/system")), {}), 1);
}

TEST(Cfgx, BoundedValueAndFailuresLeaveEmptyValue) {
    std::string longer(QDP_CFGVALUE_SIZE + 40, 'w');
    ASSERT_EQ(setcfgx(kConf, "longer", longer.c_str()), 0);
    char buf[QDP_CFGVALUE_SIZE];  // exact size: the sanitizer build sees any overrun
    EXPECT_EQ(getcfgx(kConf, "longer", buf), 0);
    EXPECT_EQ(std::string(buf), longer.substr(0, QDP_CFGVALUE_SIZE - 1));
    for (const char *file : {kConf, "/etc/config/absent.conf"}) {
        snprintf(buf, sizeof buf, "stale");
        EXPECT_EQ(getcfgx(file, "absent", buf), -1) << file;
        EXPECT_STREQ(buf, "");
    }
    EXPECT_EQ(setcfgx("/etc/nodir/x.conf", "k", "v"), -1);
    EXPECT_EQ(setcfgx(kConf, "a=b", "v"), -1);
    EXPECT_EQ(setcfgx(kConf, "k", "line\ninjected=1"), -1);
    EXPECT_EQ(getcfgx(kConf, "injected", buf), -1);
}

TEST(Cfgx, ConcurrentWritersLoseNoKey) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 10; ++i) setcfgx(kConf, ("k" + std::to_string(t * 10 + i)).c_str(), "1");
        });
    for (auto &th : threads) th.join();
    char value[QDP_CFGVALUE_SIZE];
    for (int k = 0; k < 80; ++k) EXPECT_EQ(getcfgx(kConf, ("k" + std::to_string(k)).c_str(), value), 0) << k;
}

TEST(Uci, FindsOptionsOfNamedAndUnnamedSections) {
    write_file(in_root("/etc/config/gateway"),
                         "# switches\nconfig system\n\toption hostname 'Gateway'\n"
                         "config switch 'switch'\n\toption wlan '1'   # on\n\toption note \"two words\"\n"
                         "config switch \"other\"\n\toption lan '1'\n");
    write_file(in_root("/etc/config/system/system"), "config switch 'switch'\n\toption wlan '0'\n");
    struct Case {
        const char *package, *section, *option, *value;  // value null: not found
    } cases[] = {
        {"gateway", "switch", "wlan", "1"},
        {"gateway", "switch", "note", "two words"},
        {"gateway", "system", "hostname", "Gateway"},
        {"gateway", "switch", "lan", nullptr},  // belongs to section "other"
        {"network", "lan", "ipaddr", nullptr},  // no such file
        {"system", "switch", "wlan", "0"},      // a directory: its own-name file inside
        {"../config/gateway", "switch", "wlan", nullptr},
    };
    for (const Case &c : cases) {
        char value[QDP_CFGVALUE_SIZE] = "stale";
        EXPECT_EQ(getUciOptionValue(c.package, c.section, c.option, value), c.value ? 0 : -1)
            << c.package << " " << c.section << " " << c.option;
        EXPECT_STREQ(value, c.value ? c.value : "") << c.option;
    }
}

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
    EXPECT_EQ(GetLoidInfo(loid) + GetCardNo(card) + gghelper_opmode_repeatermode_get(br0, mode), 0);
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
