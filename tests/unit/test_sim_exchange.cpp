// The messages the library builds, sent by its own clients, checked by the
// simulator's independent parsing and digests: Boot, Register and Heartbeat
// for every platform type over UDP and TCP, and signed pushes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "common/json.h"
#include "common/socket.h"
#include "platform_double.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/push.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"
#include "platintf/session_msg.h"
#include "sim_process.h"

namespace {

class SimExchange : public ::testing::Test {
protected:
    static void SetUpTestSuite() { sim_ = new qdq_test::SimProcess({"--serial", "SN1", "--loid", "L9"}); }
    static void TearDownTestSuite() {
        delete sim_;
        sim_ = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(sim_->ready());
        qdq_test::platform().reset();
        qdq_test::platform().loid = "L9";
        for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo}) {
            std::memset(p, 0, sizeof *p);
            p->socketfd = -1;
        }
        std::memset(&deviceinfo, 0, sizeof deviceinfo);
        std::snprintf(deviceinfo.devsn, sizeof deviceinfo.devsn, "SN1");
        std::snprintf(deviceinfo.mac, sizeof deviceinfo.mac, "001122334455");
        std::snprintf(deviceinfo.ipaddr, sizeof deviceinfo.ipaddr, "127.0.0.1");
    }
    void TearDown() override {
        for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo})
            if (p->socketfd > 0) close(p->socketfd);
    }

    static const char *name_of(int type) { return type == 1 ? "cube" : type == 2 ? "manage" : "plugin"; }

    // One request/answer over UDP or TCP; the reply text (after the frame
    // header over TCP), or "" when nothing came back.
    std::string exchange(int type, bool tcp, const char *msg) {
        platinfo *rec = getPlatInfo(type);
        char reply[512];
        std::memset(reply, 0, sizeof reply);
        int rc = tcp ? HGSendTcpRequest(type, msg, reply, 5)
                     : HGSendUdpRequest(0, "127.0.0.1", rec->port, msg, reply, 5);
        if (rc != 0) return "";
        reply[sizeof reply - 1] = '\0';
        return tcp ? std::string(reply + 4) : std::string(reply);
    }

    static qdq_test::SimProcess *sim_;
};
qdq_test::SimProcess *SimExchange::sim_ = nullptr;

TEST_F(SimExchange, BootRegisterHeartbeatForEveryPlatformAndTransport) {
    struct Case {
        int type;
        bool tcp;
        int reg_result;
    } cases[] = {{1, false, 1}, {2, false, 1}, {3, false, 0}, {1, true, 1}, {2, true, 1}, {3, true, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(name_of(c.type)) + (c.tcp ? " tcp" : " udp"));
        platinfo *rec = getPlatInfo(c.type);
        rec->port = sim_->port(name_of(c.type));
        std::snprintf(rec->curip, sizeof rec->curip, "127.0.0.1");
        char msg[kSessionMsgSize];
        ASSERT_EQ(GenerateBootMessage(c.type, msg), 0);
        EXPECT_EQ(ProcessBootReply(exchange(c.type, c.tcp, msg).c_str(), c.type), 0);
        ASSERT_EQ(std::strlen(rec->challengecode), 32u);
        ASSERT_EQ(GenerateRegMessage(c.type, rec->challengecode, msg), 0);
        EXPECT_EQ(ProcessRegReply(exchange(c.type, c.tcp, msg).c_str(), rec), c.reg_result);
        EXPECT_STREQ(messageserver.addr, "127.0.0.1");
        EXPECT_EQ(messageserver.port, sim_->port("message"));
        EXPECT_EQ(rec->heartbeatport, rec->port);
        if (c.type != 1) {
            char hb[kHeartbeatMsgSize];
            ASSERT_EQ(GenerateHeartBeatMessage(hb, c.type), 0);
            std::string answer = exchange(c.type, c.tcp, hb);
            EXPECT_NE(answer.find("\"Interval\""), std::string::npos) << answer;
        }
        if (rec->socketfd > 0) close(rec->socketfd);
        rec->socketfd = -1;
    }
    // The simulator's own digests agreed with every Register, and the
    // manage platform's UserID with its serial and LOID.
    EXPECT_EQ(sim_->records_with({"\"kind\": \"register\"", "\"checksn_ok\": true"}).size(), 6u);
    EXPECT_EQ(sim_->records_with({"\"checksn_ok\": false"}).size(), 0u);
    EXPECT_EQ(sim_->records_with({"\"userid_ok\": true"}).size(), 2u);
}

TEST_F(SimExchange, WrongChallengeAnswerIsRefused) {
    manageplatinfo.port = sim_->port("manage");
    char msg[kSessionMsgSize];
    ASSERT_EQ(GenerateBootMessage(2, msg), 0);
    ASSERT_EQ(ProcessBootReply(exchange(2, false, msg).c_str(), 2), 0);
    ASSERT_EQ(GenerateRegMessage(2, "NOT-THE-CHALLENGE", msg), 0);
    EXPECT_EQ(ProcessRegReply(exchange(2, false, msg).c_str(), &manageplatinfo), -3);
    EXPECT_EQ(sim_->records_with({"\"checksn_ok\": false"}).size(), 1u);
}

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

TEST_F(SimExchange, PushSignatureAcceptedAndTamperedPushRejected) {
    std::snprintf(messageserver.addr, sizeof messageserver.addr, "127.0.0.1");
    messageserver.port = sim_->port("message");
    EXPECT_EQ(SendPushMessage("plugin b01 started", nullptr), -1);  // manage not registered: nothing sent
    manageplatinfo.regflag = 1;
    EXPECT_EQ(SendPushMessage("plugin b01 started", "com.x.b01"), 0);
    EXPECT_EQ(sim_->records_with({"\"signature_ok\": true", "plugin b01 started"}).size(), 1u);

    // The same body with one field altered after signing.
    const std::string body = BuildPushMessage("door open", nullptr, "20240305070809");
    for (const char *field : {"time", "Message", "mac", "MD5"}) {
        SCOPED_TRACE(field);
        qdq::JsonPtr obj(cJSON_Parse(body.c_str()));
        ASSERT_TRUE(obj);
        cJSON_ReplaceItemInObject(obj.get(), field, cJSON_CreateString(
            std::string(field) == "Message" ? "ZG9vciBjbG9zZWQ=" : "20240305070810"));
        qdq::CText text(cJSON_PrintUnformatted(obj.get()));
        qdq::Fd sock(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in to;
        ASSERT_TRUE(qdq::ipv4_address("127.0.0.1", messageserver.port, to));
        ASSERT_EQ(connect(sock.get(), reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
        ASSERT_GT(HgTcpSend(sock.get(), text.get()), 0);
        char *raw = nullptr;
        ASSERT_GT(HgTcpRcv(sock.get(), &raw), 0);
        qdq::CText reply(raw);
        EXPECT_EQ(HGProcessPushReply(reply.get()), 1);
    }
    EXPECT_EQ(sim_->records_with({"\"signature_ok\": false"}).size(), 4u);
}

TEST(PushReply, ResultRules) {
    struct Case {
        const char *reply;
        int result;
    } cases[] = {{"{\"Result\":0}", 0}, {"{\"Result\":3}", 3}, {"{}", -1}, {"not json", -1},
                 {"{\"Result\":\"7\"}", 0}, {"", -1}, {nullptr, -1}};
    for (const auto &c : cases) EXPECT_EQ(HGProcessPushReply(c.reply), c.result) << (c.reply ? c.reply : "null");
}

TEST(PushBody, KeyOrderAndEmptyPluginName) {  // the digest: checked by the simulator above
    qdq::JsonPtr obj(cJSON_Parse(BuildPushMessage("hi", nullptr, "20240305070809").c_str()));
    ASSERT_TRUE(obj);
    std::string keys;
    for (cJSON *it = obj->child; it; it = it->next) keys += std::string(it->string) + ",";
    EXPECT_EQ(keys, "RPCMethod,Plugin_Name,time,MD5,mac,Message,");
    EXPECT_STREQ(cJSON_GetObjectItem(obj.get(), "Plugin_Name")->valuestring, "");
}

}  // namespace
