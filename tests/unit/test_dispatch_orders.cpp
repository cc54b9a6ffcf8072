// Ability commands, the manage platform's signed orders, the resend of the
// kept reply, plugin commands with keys missing and the install-result push.
#include <fcntl.h>
#include <sys/socket.h>

#include <initializer_list>
#include <thread>
#include <vector>

#include "dispatch_helpers.h"
#include "plugin/install_push.h"
#include "jsonmsg/processjsonmsg.h"
#include "platintf/session.h"

using dt::armed;
using dt::run;

namespace {

std::string b64(const std::string &text) { return qdq::CText(base64_encode(text.c_str())).get(); }
std::string md5(const std::string &text) {
    char out[33];
    getmd5(text.c_str(), out);
    return out;
}

std::vector<std::string> g_seen;  // what the host callbacks were given
void host_ability(cJSON *cmd, int *type) {
    g_seen.push_back(std::to_string(*type) + " " + qdq::CText(cJSON_PrintUnformatted(cmd)).get());
    cJSON_AddStringToObject(cmd, "Answer", "42");
}
void host_distri(int type, platinfo *rec) {
    g_seen.push_back(std::to_string(type) + (rec == &cubeplatinfo ? " cube " : " manage ") + rec->MgtURL);
}

struct Orders : dt::Dispatch {
    void SetUp() override {
        dt::Dispatch::SetUp();
        g_seen.clear();
        quickevcb.ability = host_ability, quickevcb.platdistri = host_distri;
        snprintf(deviceinfo.devsn, sizeof deviceinfo.devsn, "SN123"), snprintf(manageplatinfo.devrnd, 36, "OLDRND");
    }
    static std::string order(const char *method, const std::string &key, const char *extra = "") {
        return std::string("{\"RPCMethod\":\"") + method + "\",\"Key\":\"" + key +
               "\",\"ServerAddr\":\"10.1.1.1\",\"ServerPort\":\"9001\",\"ID\":5" + extra + "}";
    }
};

TEST_F(Orders, AbilityReachesTheHostAndComesBackEncoded) {
    const std::string inner = R"({"CmdType":"GetWifi","Band":2})";
    dt::Reply r = run(R"({"RPCMethod":"Post1","ID":9,"Plugin_Name":"x","Version":"1","Parameter":")" + b64(inner) + "\"}", 3);
    ASSERT_EQ(g_seen, std::vector<std::string>{"3 " + inner});
    qdq::CText back(base64_decode(cJSON_GetStringValue(r.get("return_Parameter"))));
    qdq::JsonPtr got(cJSON_Parse(back.get())), want(cJSON_Parse(R"({"CmdType":"GetWifi","Band":2,"Answer":"42"})"));
    EXPECT_TRUE(cJSON_Compare(got.get(), want.get(), true));
    cJSON_DeleteItemFromObject(r.json.get(), "return_Parameter");
    EXPECT_EQ(qdq::CText(cJSON_PrintUnformatted(r.json.get())).get(), std::string(R"({"ID":9,"Result":0})"));

    // 10220 Base64 characters are taken, 10221 refused; so are bad parameters.
    std::string limit = b64(R"({"CmdType":"T","p":")" + std::string(7643, 'x') + "\"}");
    ASSERT_EQ(limit.size(), 10220u);
    EXPECT_EQ(run(R"({"RPCMethod":"Post","Parameter":")" + limit + "\"}", 2).result(), 0);
    for (const std::string &p : {limit + "=", std::string(), std::string("abc"), b64("not json"),
                                 b64(R"({"CmdType":""})"), b64(R"({"CmdType":1})"), b64(R"(["CmdType"])")})
        EXPECT_EQ(run(R"({"RPCMethod":"Post","ID":1,"Parameter":")" + p + "\"}", 5).text, "{\n\t\"Result\":\t-1\n}");
    EXPECT_EQ(g_seen.size(), 2u);
}

TEST_F(Orders, RequestPluginKeyRotationRepeatAndBusy) {
    const std::string key = md5("OLDRNDSN123");
    dt::Reply r = run(order("RequestPlug-in", key), 2);
    const std::string rnd = manageplatinfo.devrnd;
    EXPECT_EQ(r.text, "{\n\t\"ID\":\t5,\n\t\"Result\":\t0,\n\t\"DevRND\":\t\"" + rnd + "\"\n}");
    EXPECT_EQ(rnd.size(), 32u);
    EXPECT_EQ(std::string(pluginplatinfo.MgtURL) + ":" + std::to_string(pluginplatinfo.port), "10.1.1.1:9001");
    EXPECT_EQ(srvreplyflag, 1);  // the reply is kept and resent until acknowledged
    EXPECT_EQ(armed(qdq::kTimerResendReply), 5);
    EXPECT_EQ(manageplatinfo.nexttimer, qdq::kTimerConnectPlugin);
    EXPECT_EQ(platreplybuf, r.text);

    // Busy, then (after the ack) repeated: success with the same random, no action.
    pluginplatinfo.MgtURL[0] = '\0';
    for (const char *ack : {"{}", R"({"Result":1})"}) {
        run(ack, 2);
        EXPECT_EQ(run(order("RequestPlug-in", key), 2).text, r.text);
        EXPECT_STREQ(pluginplatinfo.MgtURL, "");
    }
    EXPECT_EQ(armed(qdq::kTimerConnectPlugin), 1);  // the ack started the plugin connect

    // The old random no longer signs, nor does a lower-case key; the new one does.
    std::string lower = md5(rnd + "SN123");
    for (char &ch : lower) ch = static_cast<char>(tolower(ch));
    for (const std::string &k : {key, lower, std::string()}) {
        SetUp();
        std::snprintf(manageplatinfo.devrnd, sizeof manageplatinfo.devrnd, "%s", rnd.c_str());
        dt::Reply no = run(k.empty() ? R"({"RPCMethod":"RequestPlug-in"})" : order("RequestPlug-in", k), 2);
        EXPECT_EQ(no.text, k.empty() ? dt::kFailed : "{\n\t\"ID\":\t5,\n\t\"Result\":\t-1\n}");
        EXPECT_EQ(srvreplyflag, 0);
        EXPECT_EQ(armed(qdq::kTimerConnectManage), 2);
        EXPECT_EQ(armed(qdq::kTimerResendReply), -1);
    }
    EXPECT_EQ(run(order("RequestPlug-in", md5(rnd + "SN123")), 2).result(), 0);
}

TEST_F(Orders, RequestDistriMovesThePlatformByMode) {
    struct { const char *mode, *host_saw; int nexttimer; } cases[] = {
        {"", "1 cube 10.1.1.1", qdq::kTimerConnectCube},
        {",\"mode\":\"1\"", "2 manage 10.1.1.1", qdq::kTimerConnectManage},
        {",\"mode\":2", "2 cube 10.1.1.1", qdq::kTimerConnectManage}};
    for (const auto &c : cases) {
        SetUp();
        dt::Reply r = run(order("RequestDistri", md5("OLDRNDSN123"), c.mode), 2);
        EXPECT_EQ(r.text, "{\n\t\"ID\":\t5,\n\t\"Result\":\t0,\n\t\"DevRND\":\t\"" + std::string(manageplatinfo.devrnd) + "\"\n}");
        EXPECT_EQ(g_seen, std::vector<std::string>{c.host_saw});
        EXPECT_EQ(manageplatinfo.nexttimer, c.nexttimer);
        EXPECT_EQ(armed(qdq::kTimerResendReply), 5);
        EXPECT_STREQ(platreplybuf, "");  // only the RequestPlug-in reply is kept
    }
    EXPECT_EQ(cubeplatinfo.port, 9001u);
    EXPECT_EQ(run(order("RequestDistri", md5("OLDRNDSN123")), 2).result(), -1);  // busy
}

TEST_F(Orders, AcceptedOrdersKeepTheRecordForBrokenAddressOrPort) {
    struct { const char *addr, *port, *record; } cases[] = {
        {"\"10.1.1.1\\n[evil]\"", "null", "10.0.0.7:70"},
        {"\"[evil]\"", "99999", "10.0.0.7:70"},
        {"\"a b\"", "\"0\"", "10.0.0.7:70"},
        {"\"[2001:db8::1]\"", "\"-1\"", "[2001:db8::1]:70"},
        {"\"plug.example\"", "\"9001\"", "plug.example:9001"},
    };
    for (const auto &c : cases) {
        SetUp();
        std::snprintf(pluginplatinfo.MgtURL, 128, "10.0.0.7");
        pluginplatinfo.port = 70;
        const std::string msg = std::string(R"({"RPCMethod":"RequestPlug-in","Key":")") + md5("OLDRNDSN123") +
                                R"(","ServerAddr":)" + c.addr + R"(,"ServerPort":)" + c.port + "}";
        EXPECT_EQ(run(msg, 2).result(), 0) << msg;
        EXPECT_EQ(std::string(pluginplatinfo.MgtURL) + ":" + std::to_string(pluginplatinfo.port), c.record) << msg;
    }
}

// Over UDP the four resends and the reconnect after them are timed end to
// end (tests/e2e/test_orders.py); here the TCP paths.
TEST_F(Orders, ResendOverTcpOnTheChannelOrANewConnection) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    qdq::Fd near(pair[0]), far(pair[1]);
    manageplatinfo.tcpflag = 1, manageplatinfo.socketfd = near.get();
    std::snprintf(platreplybuf, sizeof platreplybuf, "{}");
    HGResendManagePlatReply();
    EXPECT_EQ(net::read_n(far.get(), 6), net::frame("{}"));
    EXPECT_NE(fcntl(near.get(), F_GETFD), -1);  // the channel's socket stays open
    run(R"({"Result":1})", 2);
    EXPECT_EQ(platresendnum, 0);
    EXPECT_EQ(armed(qdq::kTimerResendReply), -1);

    // No connection kept: the TCP request client makes one for the resend,
    // and the platform's acknowledgement on it is handled at once.
    qdq::Fd server = net::bound(SOCK_STREAM, true);
    manageplatinfo.socketfd = -1, manageplatinfo.port = net::port_of(server.get());
    std::snprintf(manageplatinfo.curip, sizeof manageplatinfo.curip, "127.0.0.1");
    manageplatinfo.nexttimer = qdq::kTimerConnectPlugin, srvreplyflag = 1;
    std::thread platform([&] {
        ASSERT_TRUE(net::wait_in(server.get())) << "no connection for the resend";
        qdq::Fd conn(accept(server.get(), nullptr, nullptr));
        EXPECT_EQ(net::read_n(conn.get(), 6), net::frame("{}"));
        const std::string ack = net::frame(R"({"Result":1})");
        send(conn.get(), ack.data(), ack.size(), 0);
    });
    HGResendManagePlatReply();
    platform.join();
    EXPECT_EQ(platresendnum, 0);
    EXPECT_EQ(armed(qdq::kTimerResendReply), -1);
    EXPECT_EQ(armed(qdq::kTimerConnectPlugin), 1);  // the acknowledged order goes on
    EXPECT_EQ(manageplatinfo.socketfd, -1);
}

// What the plugin facade handed to the host's hooks, texts quoted.
std::string g_facade_saw;
void saw(const std::string &what, std::initializer_list<const char *> texts) {
    g_facade_saw += what;
    for (const char *t : texts) g_facade_saw += t != nullptr ? " '" + std::string(t) + "'" : " null";
    g_facade_saw += ";";
}

TEST_F(Orders, PluginCommandsWithKeysMissingAskTheFacade) {
    qdqpluginhooks_t hooks{};
    hooks.install = [](int os, const char *n, const char *v, const char *u, int size, const char *up) {
        saw("install " + std::to_string(os) + " " + std::to_string(size), {n, v, u, up});
        return 0;
    };
    hooks.run = [](const char *n, const char *v) { return saw("run", {n, v}), 6; };
    hooks.stop = [](const char *n, const char *v) { return saw("stop", {n, v}), 6; };
    hooks.uninstall = [](const char *n, const char *v) { return saw("uninstall", {n, v}), 6; };
    HgSetPluginHooks(&hooks);
    struct { const char *why, *msg, *reply, *facade_saw; } cases[] = {
        {"no OS is OS 0", R"({"RPCMethod":"Install","ID":4,"Plugin_Name":"p","Version":"1","Download_url":"u"})",
         R"({"ID":4,"Result":0})", "install 0 0 'p' '1' 'u' null;"},
        {"texts of other types read empty", R"({"RPCMethod":"Install","ID":4,"Plugin_Name":7,"Version":[],)"
         R"("Download_url":null,"OS":"5","Plugin_size":"9","upgrade_ID":1})", R"({"ID":4,"Result":0})",
         "install 5 9 '' '' '' null;"},
        {"bare install", R"({"RPCMethod":"Install","ID":4,"OS":{}})", R"({"ID":4,"Result":0})",
         "install 0 0 '' '' '' null;"},
        {"run, no version", R"({"RPCMethod":"Run","ID":4,"Plugin_Name":"p"})", R"({"ID":4,"Result":6})", "run 'p' '';"},
        {"run, no name", R"({"RPCMethod":"Run","ID":4,"Version":"1"})", R"({"ID":4,"Result":6})", "run '' '1';"},
        {"query", R"({"RPCMethod":"Install_query","ID":4,"Plugin_Name":"p"})", R"({"ID":4,"Result":0})", ""},
        {"cancel", R"({"RPCMethod":"Install_cancel","ID":4,"Version":5})", R"({"ID":4,"Result":0})", ""},
        {"factory", R"({"RPCMethod":"FactoryPlugin","ID":4,"Plugin_Name":"p"})", R"({"ID":4,"Result":0})", ""},
        {"stop, no version", R"({"RPCMethod":"Stop","ID":4,"Plugin_Name":"p"})", R"({"ID":4,"Result":6})",
         "stop 'p' '';"},
        {"uninstall, no version", R"({"RPCMethod":"UnInstall","ID":4,"Plugin_Name":"p","Version":1})",
         R"({"ID":4,"Result":6})", "uninstall 'p' '';"},
        {"protected, no version",
         R"({"RPCMethod":"Stop","ID":4,"Plugin_Name":"com.brevanta.varnelo.smartgateway.dlna"})",
         R"({"ID":4,"Result":-14})", ""},
        {"stop needs a name", R"({"RPCMethod":"Stop","ID":4,"Version":"1"})", R"({"Result":-1})", ""},
    };
    for (const auto &c : cases) {
        g_facade_saw.clear();
        dt::Reply r = run(c.msg, 3);
        EXPECT_EQ(qdq::CText(cJSON_PrintUnformatted(r.json.get())).get(), std::string(c.reply)) << c.why;
        EXPECT_EQ(g_facade_saw, c.facade_saw) << c.why;
    }
    HgSetPluginHooks(nullptr);
}

TEST_F(Orders, InstallResultPushMessage) {
    const std::pair<int, const char *> cases[] = {{9, "1 V 2"}, {9010, "1 V 2"}, {9016, "1 V 2"}, {-2, "1 V 4"},
                                                  {-3, "1 V 1"}, {1, "1 V 5"}, {0, "0 V "}};
    std::vector<std::string> want;
    for (const auto &c : cases) {
        auto *rec = static_cast<pluginpushresult *>(calloc(1, sizeof(pluginpushresult)));
        *rec = {c.first, "V", "UP1", "plug"};
        HgProcessPlugPush(rec);
        want.push_back(std::string("HgPushUpgradeMessage 0 ") + c.second + " UP1 plug");
    }
    // Fields without a terminator are cut to the message's sizes.
    auto *full = static_cast<pluginpushresult *>(malloc(sizeof(pluginpushresult)));
    memset(full, 'z', sizeof *full);
    full->result = -3;
    HgProcessPlugPush(full);
    want.push_back("HgPushUpgradeMessage 0 1 " + std::string(31, 'z') + " 1 " + std::string(63, 'z') + " " + std::string(63, 'z'));
    HgProcessPlugPush(calloc(1, sizeof(pluginpushresult)));  // no upgrade id: no push
    EXPECT_EQ(qdq_test::platform().calls_named("HgPushUpgradeMessage"), want);
}

}  // namespace
