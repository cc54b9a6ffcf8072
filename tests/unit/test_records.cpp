// Records, accessors and initialisation as the host sees them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/host.h"
#include "qdquick/qdquick.h"

namespace {

TEST(Records, MacFromSerial) {
    struct Case { const char *sn, *marker, *preset, *mac; };
    for (const Case &c : {Case{"ABCDEFGH1234567890XY", "#", "", "1234567890XY"},  // last 12
                          {"SN123456", "#", "", "SN123456"},                      // short: whole
                          {"123456789012", "#", "", "123456789012"},              // exactly 12
                          {"ABCDEFGH1234567890XY", "", "", "ABCDEFGH1234567890XY"},  // "" found at 0
                          {"GW-001122334455", "0011", "", "001122334455"},        // from the marker on
                          {"ABCDEFGH1234567890XY", "#", "AA:BB", "AA:BB"}}) {     // host's value kept
        std::snprintf(deviceinfo.mac, sizeof deviceinfo.mac, "%s", c.preset);
        GetMacInSn(c.sn, c.marker);
        EXPECT_STREQ(deviceinfo.mac, c.mac) << c.sn;
    }
    // An over-long serial never overruns the 128-byte field.
    std::string huge(1000, 'Z');
    deviceinfo.mac[0] = '\0';
    GetMacInSn(huge.c_str(), "Z");
    EXPECT_EQ(std::strlen(deviceinfo.mac), sizeof deviceinfo.mac - 1);
}

int g_status_calls;
void on_status(int, const char *, int) { ++g_status_calls; }

TEST(Records, InitKeepsCallbacksClearsRecordsAndMarksUnconfigured) {
    std::snprintf(manageplatinfo.MgtURL, sizeof manageplatinfo.MgtURL, "old.example");
    manageplatinfo.regflag = 1;
    std::snprintf(messageserver.addr, sizeof messageserver.addr, "10.0.0.9");
    std::snprintf(updateserver.addr, sizeof updateserver.addr, "10.0.0.8");
    std::snprintf(deviceinfo.devsn, sizeof deviceinfo.devsn, "SN1");
    EXPECT_EQ(initQdQuick(nullptr), 0);  // no effect
    EXPECT_STREQ(manageplatinfo.MgtURL, "old.example");

    quickevcb_t cb{};
    cb.platstatus = on_status;
    ASSERT_EQ(initQdQuick(&cb), 0);
    std::memset(&cb, 0, sizeof cb);  // the library keeps its own copy
    EXPECT_EQ(quickevcb.platstatus, &on_status);
    for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo}) {
        EXPECT_STREQ(p->status, "unconfigured");
        EXPECT_EQ(p->MgtURL[0], '\0');
        EXPECT_EQ(p->regflag, 0);
    }
    EXPECT_EQ(messageserver.addr[0], '\0');
    EXPECT_STREQ(updateserver.addr, "10.0.0.8");  // not cleared
    EXPECT_STREQ(deviceinfo.devsn, "SN1");        // the host's record is kept
    EXPECT_EQ(g_status_calls, 0);                 // the initial status is no change
}

}  // namespace
