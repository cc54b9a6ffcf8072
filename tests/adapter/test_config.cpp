// key=value configuration files and UCI option reads of the real adapter.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qdquick/qdplatform.h"
#include "test_env.h"

using qdq_test::in_root;
using qdq_test::read_file;
using qdq_test::write_file;

namespace {

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
    EXPECT_EQ(getcfgx(kConf, "absent", buf), -1);
    EXPECT_STREQ(buf, "");
    snprintf(buf, sizeof buf, "stale");
    EXPECT_EQ(getcfgx("/etc/config/absent.conf", "k", buf), -1);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(setcfgx("/etc/nodir/x.conf", "k", "v"), -1);
    EXPECT_EQ(setcfgx(kConf, "a=b", "v"), -1);
    EXPECT_EQ(setcfgx(kConf, "k", "line\ninjected=1"), -1);
    EXPECT_EQ(getcfgx(kConf, "injected", buf), -1);
}

TEST(Cfgx, ConcurrentWritersLoseNoKey) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 10; ++i)
                setcfgx(kConf, ("k" + std::to_string(t * 10 + i)).c_str(), "1");
        });
    for (auto &th : threads) th.join();
    char value[QDP_CFGVALUE_SIZE];
    for (int k = 0; k < 80; ++k)
        EXPECT_EQ(getcfgx(kConf, ("k" + std::to_string(k)).c_str(), value), 0) << k;
}

TEST(Uci, FindsOptionsOfNamedAndUnnamedSections) {
    write_file(in_root("/etc/config/gateway"),
               "# switches\nconfig system\n\toption hostname 'Gateway'\n"
               "config switch 'switch'\n\toption wlan '1'   # on\n"
               "\toption note \"two words\"\n"
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
        {"system", "switch", "wlan", "0"},  // a directory: its own-name file inside
        {"../config/gateway", "switch", "wlan", nullptr},
    };
    for (const Case &c : cases) {
        char value[QDP_CFGVALUE_SIZE] = "stale";
        EXPECT_EQ(getUciOptionValue(c.package, c.section, c.option, value), c.value ? 0 : -1)
            << c.package << " " << c.section << " " << c.option;
        EXPECT_STREQ(value, c.value ? c.value : "") << c.option;
    }
}

}  // namespace
