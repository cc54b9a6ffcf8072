// What the platforms' answers do to the records, the configuration, the
// status word and the timers that carry a session on.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "common/timer.h"
#include "localsvc/callbacks.h"
#include "platform_double.h"
#include "platintf/reply_process.h"
#include "test_env.h"

namespace {

std::vector<std::string> g_status;

class ReplyProcess : public ::testing::Test {
protected:
    void SetUp() override {
        timerflag = 1;  // timers are armed and inspected, never run
        AppInitTimerModule();
        for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo}) std::memset(p, 0, sizeof *p);
        qdq_test::platform().reset();
        g_status.clear();
        quickevcb.platstatus = [](int type, const char *status, int result) {
            g_status.push_back(std::to_string(type) + " " + status + " " + std::to_string(result));
        };
    }
    // id -> seconds of every armed timer.
    static std::map<int, int> armed() {
        std::map<int, int> out;
        qdq::TimerGuard guard;
        for (const AppTimerEntry &t : g_timer)
            if (t.func != 0) out[t.func] = t.left_time;
        return out;
    }
};

TEST_F(ReplyProcess, HeartbeatOutcomes) {
    using Timers = std::map<int, int>;
    struct Case {
        int type;
        const char *reply;  // null: time-out
        int failures, firsthb;
        int result;
        const char *status;
        Timers timers;
        int failures_after, firsthb_after;
    } cases[] = {
        {2, nullptr, 0, 1, -1, "try_connect_failed", {{13, 1}}, 1, 1},
        {2, nullptr, 2, 1, -1, "try_connect_failed", {{9, 1}}, 0, 1},  // third in a row: connect anew
        {2, "not json", 1, 0, -1, "try_connect_failed", {{13, 1}}, 2, 0},
        {3, nullptr, 0, 0, -1, "disconnect", {{17, 2}, {10, 5}}, 0, 0},
        {2, "{\"Result\":-3}", 1, 1, -3, "", {{9, 1}}, 1, 1},
        {3, "{\"Result\":-5}", 0, 0, -5, "", {{9, 1}}, 0, 0},  // the manage platform, also for plugin
        {3, "{\"Result\":-6}", 0, 0, -6, "", {{10, 1}}, 0, 0},
        {2, "{\"Result\":-6}", 0, 0, -6, "", {}, 0, 0},  // the cycle stops
        {2, "{\"Result\":0,\"Interval\":30}", 2, 1, 0, "wait_heatbeat", {{13, 30}}, 0, 0},
        {2, "{\"Result\":1}", 0, 1, 1, "wait_heatbeat", {{13, 60}}, 0, 1},
        {3, "{\"Result\":0}", 0, 0, 0, "wait_heatbeat", {{15, 60}}, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " " + (c.reply ? c.reply : "timeout"));
        SetUp();
        platinfo *rec = getPlatInfo(c.type);
        rec->interval = 60;
        rec->hbfailnum = static_cast<signed char>(c.failures);
        rec->firsthb = static_cast<unsigned>(c.firsthb);
        AppTimerCreate(20, c.type == 2 ? 14 : 16, 0, QdTimeoutHandle);  // the pending reply time-out
        EXPECT_EQ(ProcessHeartBeatReply(c.reply, c.type), c.result);
        Timers timers = c.timers;
        if (c.reply == nullptr) timers[c.type == 2 ? 14 : 16] = 20;  // a time-out leaves it alone
        EXPECT_EQ(armed(), timers);
        EXPECT_EQ(g_status, c.status[0] ? std::vector<std::string>{std::to_string(c.type) + " " + c.status + " " +
                                                                   std::to_string(c.result)}
                                        : std::vector<std::string>{});
        EXPECT_EQ(rec->hbfailnum, c.failures_after);
        EXPECT_EQ(rec->firsthb, static_cast<unsigned>(c.firsthb_after));
    }
    EXPECT_FALSE(qdq_test::read_file(qdq_test::in_root("/var/plug_heart_beat_time_file")).empty());
    EXPECT_EQ(ProcessHeartBeatReply("{\"Result\":0}", 1), -1);
}

TEST_F(ReplyProcess, RegisterReplyAddresses) {
    manageplatinfo.port = 60001;
    std::snprintf(manageplatinfo.MgtURL, 128, "10.0.0.9");
    std::snprintf(pluginplatinfo.MgtURL, 128, "10.0.0.7");
    pluginplatinfo.port = 70;
    EXPECT_EQ(ProcessRegReply(R"({"Result":2,"Interval":33,"HeartbeatIPAddr":"10.0.0.1:9000",
        "PluginServer":"10.0.0.7:70","ServerAddr":"10.0.0.9","ServerPort":"60001"})", &manageplatinfo), 2);
    EXPECT_EQ(manageplatinfo.interval, 33u);
    EXPECT_STREQ(manageplatinfo.heartbeatip, "10.0.0.1");
    EXPECT_EQ(manageplatinfo.heartbeatport, 9000u);
    // The same plugin server is connected again all the same.
    EXPECT_EQ(manageplatinfo.nexttimer, 10);
    EXPECT_EQ(armed(), (std::map<int, int>{{10, 3}}));
    EXPECT_TRUE(qdq_test::platform().setcfg.empty());  // nothing changed

    EXPECT_EQ(ProcessRegReply(R"({"Result":2,"HeartbeatIPAddr":"hb.example","ServerAddr":"10.0.0.8",
        "ServerPort":"60009"})", &manageplatinfo), 2);
    EXPECT_STREQ(manageplatinfo.heartbeatip, "hb.example");
    EXPECT_EQ(manageplatinfo.heartbeatport, 60001u);
    EXPECT_EQ(manageplatinfo.port, 60009u);
    EXPECT_EQ(qdq_test::platform().setcfg.size(), 2u);
    EXPECT_EQ(ProcessRegReply("{\"Interval\":5}", &manageplatinfo), -1);
}

TEST_F(ReplyProcess, UnchangedStatusIsNotReported) {
    HgSetPlateStatus(2, "connected", 1);
    HgSetPlateStatus(2, "connected", 5);
    HgSetPlateStatus(4, "connected", 1);
    EXPECT_EQ(g_status, std::vector<std::string>{"2 connected 1"});
}

}  // namespace
