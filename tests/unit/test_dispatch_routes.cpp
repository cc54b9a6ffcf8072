// The dispatcher's routing: platform replies, bad texts, pre-routing, the
// job manager and the command table.
#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>

#include "common/clock.h"
#include "dispatch_helpers.h"
#include "platintf/session.h"
#include "plugin/local_origin.h"

using dt::armed;
using dt::run;

namespace {

using Routes = dt::Dispatch;
using dt::kFailed;

// A reply of the manage platform, the state it meets and what it leaves.
struct ManageReply {
    explicit ManageReply(const char *text) : msg(text) {}
    ManageReply &awaiting_ack(int timer) { return ack_pending = 1, next_timer = timer, *this; }
    ManageReply &next(int timer) { return next_timer = timer, *this; }
    ManageReply &arms(int timer, int seconds) { return armed[timer] = seconds, *this; }
    ManageReply &keeps_resend() { return armed[qdq::kTimerResendReply] = 5, *this; }  // of the kept reply
    ManageReply &still_awaits_ack() { return ack_pending_after = 1, *this; }

    const char *msg;
    int ack_pending = 0, next_timer = 0;  // srvreplyflag and manageplatinfo.nexttimer before
    std::map<int, int> armed;             // of the timers below: id -> seconds
    int ack_pending_after = 0;
};

TEST_F(Routes, ManagePlatformRepliesAckAndHeartbeat) {
    const ManageReply cases[] = {
        ManageReply(R"({"Result":1})").awaiting_ack(qdq::kTimerConnectPlugin).arms(qdq::kTimerConnectPlugin, 1),
        ManageReply(R"({"Result":1})").next(qdq::kTimerConnectPlugin),  // nothing was pending
        ManageReply(R"({"Result":-1})").awaiting_ack(qdq::kTimerConnectPlugin).arms(qdq::kTimerConnectManage, 1),
        ManageReply(R"({"Result":2})").awaiting_ack(qdq::kTimerConnectPlugin).keeps_resend().still_awaits_ack(),  // dropped
        ManageReply(R"({"Result":0,"Interval":7,"RPCMethod":"Install"})")  // heartbeat
            .awaiting_ack(0).arms(qdq::kTimerManageHeartbeat, 7).keeps_resend().still_awaits_ack(),
        ManageReply(R"({"Result":-3})").arms(qdq::kTimerConnectManage, 1).keeps_resend(),
        ManageReply(R"({"Result":-5})").arms(qdq::kTimerConnectManage, 1).keeps_resend(),
    };
    const int watched[] = {qdq::kTimerConnectManage, qdq::kTimerConnectPlugin, qdq::kTimerManageHeartbeat,
                           qdq::kTimerResendReply};
    for (const auto &c : cases) {
        SetUp();
        srvreplyflag = c.ack_pending, platresendnum = 3;
        manageplatinfo.nexttimer = static_cast<signed char>(c.next_timer);
        AppTimerCreate(5, qdq::kTimerResendReply, 0, QdTimeoutHandle);
        dt::Reply r = run(c.msg, 2);
        SCOPED_TRACE(c.msg);
        EXPECT_EQ(r.ret, 0);
        EXPECT_EQ(r.text, "");
        std::map<int, int> timers;
        for (int id : watched)
            if (armed(id) >= 0) timers[id] = armed(id);
        EXPECT_EQ(timers, c.armed);
        EXPECT_EQ(srvreplyflag, c.ack_pending_after);
        EXPECT_EQ(platresendnum, c.armed.count(qdq::kTimerResendReply) ? 3 : 0);
    }
    // The plugin platform's replies are silent; from elsewhere "Result" is ignored.
    EXPECT_EQ(run(R"({"Result":1,"RPCMethod":"UnInstall","Plugin_Name":"a","Version":"1"})", 3).ret, 0);
    EXPECT_EQ(run(R"({"Result":7,"RPCMethod":"Disconnect"})", 5).result(), 0);
}

TEST_F(Routes, CommandsAreAnsweredRefusedOrEchoed) {
    const std::string nv = R"(,"Plugin_Name":"p","Version":"1"})";
    const std::string nas = R"(,"Plugin_Name":"com.brevanta.varnelo.smartgateway.nas","Version":"1"})";
    const std::string samba = R"(,"Plugin_Name":"com.brevanta.varnelo.smartgateway.samba","Version":"1"})";
    const std::string huge(200000, 'A');
    struct { int type; std::string msg, expect; } cases[] = {
        {3, R"({"RPCMethod":"Disconnect","ID":1})", R"({"ID":1,"Result":0})"},
        {3, R"({"RPCMethod":"Install","ID":1,"Download_url":"u","Plugin_size":9,"OS":5,"upgrade_ID":"U")" + nv, R"({"ID":1,"Result":0})"},
        {3, R"({"RPCMethod":"Install","Download_url":"u","OS":3)" + nv, R"({"Result":-7})"},
        {4, R"({"RPCMethod":"Install_query")" + nv, R"({"Result":0})"},
        {3, R"({"RPCMethod":"Install_cancel","x":[])" + nv, R"({"x":[],"Result":0})"},
        {3, R"({"RPCMethod":"UnInstall")" + nv, R"({"Result":0})"}, {3, R"({"RPCMethod":"Stop")" + nv, R"({"Result":0})"},
        {3, R"({"RPCMethod":"UnInstall")" + nas, R"({"Result":-14})"}, {3, R"({"RPCMethod":"Stop")" + samba, R"({"Result":-14})"},
        {3, R"({"RPCMethod":"Run")" + nv, R"({"Result":0})"}, {3, R"({"RPCMethod":"FactoryPlugin")" + nv, R"({"Result":0})"},
        {3, R"({"RPCMethod":"ListPlugin")" + nv, R"({"Plugin_Name":"p","Version":"1","Plugin":[],"Result":0})"},
        // a needed key missing or of the wrong type: refused whole
        {3, R"({"RPCMethod":"UnInstall","Version":"1","ID":2})", R"({"Result":-1})"}, {3, R"({"RPCMethod":"Stop","Plugin_Name":7,"Version":"1"})", R"({"Result":-1})"},
        {2, R"({"RPCMethod":"RequestPlug-in","Key":5})", R"({"Result":-1})"},
        {2, R"({"RPCMethod":"RequestDistri","Key":[]})", R"({"Result":-1})"},
        // unusable texts: not JSON, too deep, no or an empty RPCMethod
        {3, "", R"({"Result":-1})"}, {3, "{", R"({"Result":-1})"}, {3, "[1,2]", R"({"Result":-1})"},
        {3, "7", R"({"Result":-1})"}, {3, "{}", R"({"Result":-1})"}, {3, std::string(100000, '['), R"({"Result":-1})"},
        {3, R"({"RPCMethod":""})", R"({"Result":-1})"}, {5, R"({"RPCMethod":5})", R"({"Result":-1})"},
        // no handler: echoed whole
        {3, R"({"RPCMethod":"Reboot","ID":3})", ""}, {2, R"({"RPCMethod":"Install","ID":3})", ""},
        {2, R"({"RPCMethod":"EVENT_INFOR","Event":"e"})", ""}, {3, R"({"RPCMethod":"EVENT_INFOR","Event":"e"})", ""},
        {3, "{\"RPCMethod\":\"" + huge + "\"}", ""},
    };
    for (const auto &c : cases) {
        dt::Reply r = run(c.msg, c.type);
        qdq::JsonPtr want(cJSON_Parse((c.expect.empty() ? c.msg : c.expect).c_str()));
        EXPECT_TRUE(cJSON_Compare(r.json.get(), want.get(), true)) << c.msg.substr(0, 100) << " -> " << r.text.substr(0, 100);
        EXPECT_EQ(r.ret, static_cast<int>(r.text.size()) + 1);
    }
    EXPECT_EQ(run("", 3, true).text, kFailed);  // no text at all
}

std::vector<std::string> g_hooked;  // "<hook> <name>" per plugin hook call
int hooked(const char *hook, const char *name) { return g_hooked.push_back(std::string(hook) + " " + name), 0; }

TEST_F(Routes, LocalPluginOrdersActOnlyWhenTheHostAllowsThem) {
    qdqpluginhooks_t hooks{};
    hooks.install = [](int, const char *n, const char *, const char *, int, const char *) { return hooked("install", n); };
    hooks.run = [](const char *n, const char *) { return hooked("run", n); };
    hooks.stop = [](const char *n, const char *) { return hooked("stop", n); };
    hooks.uninstall = [](const char *n, const char *) { return hooked("uninstall", n); };
    HgSetPluginHooks(&hooks);
    const std::string nv = R"("ID":7,"Plugin_Name":"com.l.p","Version":"1")";
    const std::string install = R"({"RPCMethod":"Install","Download_url":"http://127.0.0.1:9/x.cpk","OS":0,)" + nv + "}";
    const std::string refused = R"({"ID":7,"Result":-15})";
    struct { int type, allowed; std::string msg, expect, hooked; } cases[] = {
        {5, 0, install, refused, ""}, {4, 0, install, refused, ""},
        {5, 0, R"({"RPCMethod":"UnInstall",)" + nv + "}", refused, ""},
        {4, 0, R"({"RPCMethod":"Run",)" + nv + "}", refused, ""},
        {5, 0, R"({"RPCMethod":"Stop",)" + nv + "}", refused, ""},
        {4, 0, R"({"RPCMethod":"FactoryPlugin",)" + nv + "}", refused, ""},
        {5, 0, R"({"RPCMethod":"Install_cancel",)" + nv + "}", refused, ""},
        // reading stays open; the platforms and an allowing host are obeyed
        {5, 0, R"({"RPCMethod":"Install_query",)" + nv + "}", R"({"ID":7,"Result":0})", ""},
        {4, 0, R"({"RPCMethod":"ListPlugin","ID":7})", R"({"ID":7,"Plugin":[],"Result":0})", ""},
        {3, 0, install, R"({"ID":7,"Result":0})", "install com.l.p"},
        {5, 1, install, R"({"ID":7,"Result":0})", "install com.l.p"},
        {4, 1, R"({"RPCMethod":"Stop",)" + nv + "}", R"({"ID":7,"Result":0})", "stop com.l.p"},
    };
    for (const auto &c : cases) {
        g_hooked.clear();
        gQuickLocalPluginOrders = c.allowed;
        dt::Reply r = run(c.msg, c.type);
        gQuickLocalPluginOrders = 0;
        qdq::JsonPtr want(cJSON_Parse(c.expect.c_str()));
        EXPECT_TRUE(cJSON_Compare(r.json.get(), want.get(), true)) << c.type << " " << c.msg << " -> " << r.text;
        EXPECT_EQ(g_hooked, c.hooked.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.hooked}) << c.msg;
    }
    HgSetPluginHooks(nullptr);
    // Only the install a local client ordered is marked for confinement.
    EXPECT_TRUE(qdq::plugin_local_origin("com.l.p"));
    EXPECT_FALSE(qdq::plugin_local_origin("com.l.q"));
}

// One test owns the job manager's port, so parallel test processes never
// race for it.
TEST_F(Routes, JobManagerForwardingAndSilence) {
    qdq::Fd jm(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in a{};
    qdq::ipv4_address("127.0.0.1", 17401, a);
    ASSERT_EQ(bind(jm.get(), (sockaddr *)&a, sizeof a), 0) << "port 17401 busy";
    const std::string answer(5000, 'j');
    struct { const char *msg; int type; bool forwarded; } cases[] = {
        {R"({"RPCMethod":"SetPlug-inParameterValues","Plugin_Name":"p","Version":"1","Parameter":"x"})", 3, true},
        {R"({"RPCMethod":"SetPlug-inParameterValues"})", 2, true},
        {R"({"RPCMethod":"SetPlug-inParameterValues","Parameter":"x"})", 5, false},  // ability, refused
    };
    for (const auto &c : cases) {
        std::string got;
        std::thread server([&] {
            char buf[2048];
            sockaddr_in from{};
            socklen_t len = sizeof from;
            if (!net::wait_in(jm.get(), c.forwarded ? 5000 : 300)) return;
            got.assign(buf, size_t(std::max<ssize_t>(0, recvfrom(jm.get(), buf, sizeof buf, 0, (sockaddr *)&from, &len))));
            sendto(jm.get(), answer.data(), answer.size(), 0, (sockaddr *)&from, len);
        });
        dt::Reply r = run(c.msg, c.type);
        server.join();
        EXPECT_EQ(got, c.forwarded ? c.msg : "");
        EXPECT_EQ(r.text == answer, c.forwarded);
        EXPECT_EQ(r.ret, c.forwarded ? 5000 : static_cast<int>(r.text.size()) + 1);
    }
    EXPECT_EQ(run(R"({"RPCMethod":"SetPlug-inParameterValues"})", 3).result(), -100);  // nobody answers
}

}  // namespace
