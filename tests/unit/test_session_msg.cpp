// Boot, Register and Heartbeat messages: key order per platform type, the
// duplicate "MAC", the values taken from the platform; then stale challenges,
// oversized Boots and signed pushes checked by the simulator's independent
// parsing and digests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "common/clock.h"
#include "common/json.h"
#include "common/log.h"
#include "net_helpers.h"
#include "platform_double.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/push.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"
#include "platintf/session_msg.h"
#include "sim_process.h"

namespace {

using Keys = std::vector<std::string>;

Keys keys_of(const std::string &text) {
    qdq::JsonPtr obj(cJSON_Parse(text.c_str()));
    Keys keys;
    if (obj)
        for (cJSON *it = obj->child; it; it = it->next) keys.push_back(it->string);
    return keys;
}

std::string value_of(const std::string &text, const char *key) {
    qdq::JsonPtr obj(cJSON_Parse(text.c_str()));
    const cJSON *v = obj ? cJSON_GetObjectItemCaseSensitive(obj.get(), key) : nullptr;
    return cJSON_IsString(v) ? v->valuestring : "<none>";
}

class SessionMsg : public ::testing::Test {
protected:
    void SetUp() override {
        qdq_test::platform().reset();
        qdq_test::platform().loid = "L9";
        for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo}) {
            std::memset(p, 0, sizeof *p);
            p->socketfd = -1;
        }
        std::memset(&deviceinfo, 0, sizeof deviceinfo);
        std::snprintf(deviceinfo.model, sizeof deviceinfo.model, "HG-X1");
        std::snprintf(deviceinfo.firmwarever, sizeof deviceinfo.firmwarever, "V1.2");
        std::snprintf(deviceinfo.hardwarever, sizeof deviceinfo.hardwarever, "HW3");
        std::snprintf(deviceinfo.mac, sizeof deviceinfo.mac, "001122334455");
        std::snprintf(deviceinfo.devsn, sizeof deviceinfo.devsn, "SN1");
        std::snprintf(deviceinfo.areacode, sizeof deviceinfo.areacode, "0755");
        std::snprintf(deviceinfo.ipaddr, sizeof deviceinfo.ipaddr, "127.0.0.1");
        std::snprintf(deviceinfo.pppoename, sizeof deviceinfo.pppoename, "user@isp");
        deviceinfo.regtype = 3;
    }
    void TearDown() override {
        for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo})
            if (p->socketfd > 0) close(p->socketfd);
    }
    std::string buf;
};

// The built message into `out` ("" for none); true when one was built.
bool take(std::string &out, qdq::CText text) {
    out = text ? text.get() : "";
    return text != nullptr;
}

TEST_F(SessionMsg, KeyOrderPerPlatformType) {
    const Keys head = {"RPCMethod", "Vendor", "Model", "FirmwareVer", "HardwareVer",
                       "MAC",       "AreaCode", "wevrinstatus", "MAC"};
    const Keys cube_tail = {"IPAddr", "PlatformID", "Br0_IP", "WanLinkMode"};
    struct Case {
        int type;
        const char *boot_method;
        Keys boot_tail, reg, heartbeat;  // heartbeat: once the first one was answered
    } cases[] = {
        {1, "BootFirst", cube_tail, {"RPCMethod", "CheckSN", "MAC"}, {"MAC"}},
        {2, "Boot", {"DevRND", "OsVer", "IPAddr", "PlatformID", "LOID", "Card", "Br0_IP", "WanLinkMode"},
         {"RPCMethod", "CheckSN", "MAC", "UserID", "flag", "DevRND"}, {"RPCMethod", "FLAG", "MAC"}},
        {3, "Boot", {"IPAddr", "LOID", "Card", "Br0_IP", "WanLinkMode"}, {"RPCMethod", "CheckSN"},
         {"RPCMethod", "IPAddr", "MAC"}},
        {7, "BootFirst", cube_tail, {"RPCMethod", "CheckSN"}, {"MAC"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        Keys boot = head;
        boot.insert(boot.end(), c.boot_tail.begin(), c.boot_tail.end());
        ASSERT_TRUE(take(buf, GenerateBootMessage(c.type)));
        EXPECT_EQ(keys_of(buf), boot);
        EXPECT_EQ(value_of(buf, "RPCMethod"), c.boot_method);
        EXPECT_EQ(value_of(buf, "Vendor"), "quendara");
        EXPECT_NE(buf.find('\n'), std::string::npos) << "formatted print expected";
        ASSERT_TRUE(take(buf, GenerateRegMessage(c.type, "XYZ")));
        EXPECT_EQ(keys_of(buf), c.reg);
        std::string hb;
        ASSERT_TRUE(take(hb, GenerateHeartBeatMessage(c.type)));
        EXPECT_EQ(keys_of(hb), c.heartbeat);
    }
    // Until one is answered, the manage platform's heartbeats carry the address.
    manageplatinfo.firsthb = 1;
    std::string hb;
    ASSERT_TRUE(take(hb, GenerateHeartBeatMessage(2)));
    EXPECT_EQ(keys_of(hb), (Keys{"RPCMethod", "IPAddr", "FLAG", "MAC"}));
    EXPECT_EQ(value_of(hb, "FLAG"), "1");
}

TEST_F(SessionMsg, BootValuesFromThePlatform) {
    auto &p = qdq_test::platform();
    p.loid = "LOID-NEW";
    p.wevrin = 1;
    p.child_router_json = R"({"childRouter":[{"mac":"AA"}],"other":1})";
    std::snprintf(deviceinfo.cardflag, sizeof deviceinfo.cardflag, "1");
    std::snprintf(deviceinfo.loid, sizeof deviceinfo.loid, "STALE");
    ASSERT_TRUE(take(buf, GenerateBootMessage(2)));
    EXPECT_EQ(value_of(buf, "LOID"), "LOID-NEW");
    EXPECT_STREQ(deviceinfo.loid, "LOID-NEW");  // refreshed in the record
    EXPECT_EQ(value_of(buf, "Card"), "CARD42");
    EXPECT_EQ(value_of(buf, "wevrinstatus"), "1");
    EXPECT_EQ(value_of(buf, "Br0_IP"), "192.168.1.1");
    const std::string rnd = value_of(buf, "DevRND");  // getrand's 32 upper-case hex digits, kept in the record
    EXPECT_EQ(rnd, manageplatinfo.devrnd);
    EXPECT_EQ(rnd.size(), 32u);
    EXPECT_EQ(rnd.find_first_not_of("0123456789ABCDEF"), std::string::npos) << rnd;
    getrand(nullptr);  // no effect, no crash
    EXPECT_NE(buf.find("\"ChildRouter\":\t[{"), std::string::npos) << buf;
    // Card reader off: empty "Card", GetCardNo not asked.
    for (const char *flag : {"0", ""}) {
        std::snprintf(deviceinfo.cardflag, sizeof deviceinfo.cardflag, "%s", flag);
        p.reset();
        ASSERT_TRUE(take(buf, GenerateBootMessage(3)));
        EXPECT_EQ(value_of(buf, "Card"), "");
        EXPECT_TRUE(p.calls_named("GetCardNo").empty());
    }
}

// The digests themselves are checked by the simulator below.
TEST_F(SessionMsg, RegisterValues) {
    ASSERT_TRUE(take(buf, GenerateRegMessage(2, "ABC")));
    EXPECT_EQ(value_of(buf, "flag"), "3");
    manageplatinfo.bootflag = 1;
    ASSERT_TRUE(take(buf, GenerateRegMessage(2, "ABC")));
    EXPECT_EQ(value_of(buf, "pppoename"), "user@isp");
    ASSERT_TRUE(take(buf, GenerateRegMessage(9, nullptr)));  // no challenge: digest of the serial alone
    EXPECT_EQ(value_of(buf, "RPCMethod"), "");
    char serial_digest[33];
    getmd5("SN1", serial_digest);
    EXPECT_EQ(value_of(buf, "CheckSN"), serial_digest);
}

TEST_F(SessionMsg, OversizedFieldsComeOutWhole) {
    // Every field full of characters that JSON escapes six-fold: far more
    // than the 2000 bytes the callers once gave.
    std::memset(deviceinfo.model, '\x01', sizeof deviceinfo.model - 1);
    std::memset(deviceinfo.ipaddr, '\x01', sizeof deviceinfo.ipaddr - 1);
    ASSERT_TRUE(take(buf, GenerateBootMessage(2)));
    EXPECT_GT(buf.size(), 3000u);
    EXPECT_EQ(value_of(buf, "Model"), std::string(sizeof deviceinfo.model - 1, '\x01'));
}

class SimExchange : public SessionMsg {
protected:
    static void SetUpTestSuite() { sim_ = new qdq_test::SimProcess({"--serial", "SN1", "--loid", "L9"}); }
    static void TearDownTestSuite() {
        delete sim_;
        sim_ = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(sim_->ready());
        SessionMsg::SetUp();
    }

    static inline qdq_test::SimProcess *sim_ = nullptr;
};

// A challenge the platform no longer knows (a late Boot reply meant for an
// earlier attempt, or a platform restarted between Boot and Register) is
// refused for ever; after a few refusals the gateway fetches a new one.
TEST_F(SimExchange, RegisterWithAStaleChallengeBootsAgain) {
    deviceinfo.ipmode = AF_INET;
    platregtid = pthread_self();
    cubeplatinfo.port = sim_->port("cube");
    std::snprintf(cubeplatinfo.MgtURL, sizeof cubeplatinfo.MgtURL, "127.0.0.1");
    ASSERT_EQ(HgProcessBoot(QDQ_PLAT_CUBE), 0);
    std::snprintf(cubeplatinfo.challengecode, sizeof cubeplatinfo.challengecode, "STALE");
    const size_t refused = sim_->records_with({"\"checksn_ok\": false"}).size();
    EXPECT_EQ(HgProcessRegister(QDQ_PLAT_CUBE), 1);
    EXPECT_STREQ(cubeplatinfo.status, "connected");
    EXPECT_EQ(sim_->records_with({"\"checksn_ok\": false"}).size() - refused, 5u);
}

// A Boot with a long "ChildRouter" list (far more than the 2000 bytes of
// the callers' buffers of old) reaches the platform whole, by either
// transport, and is answered.
TEST_F(SimExchange, OversizedBootReachesThePlatformWhole) {
    std::string routers;
    for (int i = 0; i < 60; ++i)
        routers += std::string(i ? "," : "") + R"({"mac":"CHILD-)" + std::to_string(i) + R"(","name":"child router"})";
    qdq_test::platform().child_router_json = "{\"childRouter\":[" + routers + "]}";
    deviceinfo.ipmode = AF_INET;
    platregtid = pthread_self();
    for (unsigned tcp : {0u, 1u}) {
        SCOPED_TRACE(tcp);
        cubeplatinfo.port = sim_->port("cube");
        cubeplatinfo.tcpflag = tcp;
        std::snprintf(cubeplatinfo.MgtURL, sizeof cubeplatinfo.MgtURL, "127.0.0.1");
        EXPECT_EQ(HgProcessBoot(QDQ_PLAT_CUBE), 0);
        qdq::close_session_socket(&cubeplatinfo);
    }
    EXPECT_EQ(sim_->records_with({"\"kind\": \"boot\"", "CHILD-59"}).size(), 2u);
}

TEST_F(SimExchange, PushSignatureAccepted) {
    std::snprintf(messageserver.addr, sizeof messageserver.addr, "127.0.0.1");
    messageserver.port = sim_->port("message");
    EXPECT_EQ(SendPushMessage("plugin b01 started", nullptr), -1);  // manage not registered: nothing sent
    manageplatinfo.regflag = 1;
    EXPECT_EQ(SendPushMessage("plugin b01 started", "com.x.b01"), 0);
    EXPECT_EQ(sim_->records_with({"\"signature_ok\": true", "plugin b01 started"}).size(), 1u);

    // The signed body's keys in the platform's order. A body altered after
    // signing is the message server's to refuse (tests/sim/test_message.py),
    // and its Result 1 comes back as such (PushReply.ResultRules).
    const std::string body = BuildPushMessage("door open", nullptr, "20240305070809");
    EXPECT_EQ(keys_of(body), (Keys{"RPCMethod", "Plugin_Name", "time", "MD5", "mac", "Message"}));
    EXPECT_EQ(value_of(body, "Plugin_Name"), "");
}

// A message server whose accept queue is full drops the connection attempt
// unanswered; the push gives up after its connect time-out.
TEST_F(SessionMsg, PushGivesUpOnAServerThatNeverAccepts) {
    qdq::Fd server = net::bound(SOCK_STREAM);
    ASSERT_EQ(listen(server.get(), 0), 0);  // room for one queued connection
    qdq::Fd queued = net::connected(net::port_of(server.get()));
    ASSERT_TRUE(queued.valid());
    std::snprintf(messageserver.addr, sizeof messageserver.addr, "127.0.0.1");
    messageserver.port = net::port_of(server.get());
    manageplatinfo.regflag = 1;
    const long fds = net::open_fds();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SendPushMessage("door open", nullptr), -1);
    using Seconds = std::chrono::duration<double>;
    const double took = Seconds(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(took, Seconds(qdq::scaled(10)).count() + 3);  // scaled, not the kernel's minutes
    EXPECT_TRUE(net::logged(qdq::kLogMain, std::string("connect error! errno=") + std::strerror(ETIMEDOUT)));
    EXPECT_EQ(net::open_fds(), fds);
}

TEST(PushReply, ResultRules) {
    struct Case {
        const char *reply;
        int result;
    } cases[] = {{"{\"Result\":0}", 0}, {"{\"Result\":3}", 3}, {"{}", -1}, {"not json", -1},
                 {"{\"Result\":\"7\"}", 0}, {"", -1}, {nullptr, -1}};
    for (const auto &c : cases) EXPECT_EQ(HGProcessPushReply(c.reply), c.result) << (c.reply ? c.reply : "null");
}

}  // namespace
