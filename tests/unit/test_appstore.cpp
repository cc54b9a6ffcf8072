// App store client: the requests' exact bytes, the replies copied into the
// records within their sizes, and the exchanges through the host's sender.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>

#include "platform_double.h"
#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

using qdq_test::platform;

const std::string kBody = "{\n\t\"username\":\t\"001122334455\",\n\t\"password\":\t\"SN1\"\n}";

void set(char *field, std::size_t cap, const std::string &value) { std::snprintf(field, cap, "%s", value.c_str()); }
#define SET(field, value) set(field, sizeof field, value)

class AppStore : public ::testing::Test {
protected:
    void SetUp() override {
        platform().reset();
        std::memset(&deviceinfo, 0, sizeof deviceinfo);
        std::memset(&cubeplatinfo, 0, sizeof cubeplatinfo);
        std::memset(&pluginplatinfo, 0, sizeof pluginplatinfo);
        std::memset(&appStoreUrlInfo, 0, sizeof appStoreUrlInfo);
        std::memset(gToken, 0, sizeof gToken);
        urlResult = 0;
        SET(deviceinfo.mac, "001122334455");
        SET(deviceinfo.devsn, "SN1");
        SET(deviceinfo.loid, "ABC");
        SET(cubeplatinfo.MgtURL, "cube.example");
        unsetenv("QDQUICK_DEFAULT_CUBE");
    }
    char out[1024] = {};
};

TEST_F(AppStore, RequestsHaveTheirExactBytesAndLineEnds) {
    struct Case {
        const char *loid;
        const char *basic;
    } cases[] = {{"ABC", "NTI4MDQxNiBBQkM="}, {" X", "NTI4MDQxNiA4NjQyMA=="}};  // blank: "5280416 86420"
    for (const Case &c : cases) {
        SET(deviceinfo.loid, c.loid);
        char buf[1024] = {};
        ASSERT_EQ(GenerateGetAppStoreToken(buf), 0);
        EXPECT_EQ(std::string(buf), "POST /oauth2.0/authorize?response_type=MAC HTTP/1.1\nHost: cube.example\n"
                                    "Authorization: Basic " + std::string(c.basic) + "\nContent-Length: " +
                                        std::to_string(kBody.size()) +
                                        "\nContent-Type: application/json\r\n\r\n" + kBody);
    }
    platform().stored_token = "TOK";
    ASSERT_EQ(GenerateGetAppStoreUrl(out), 0);
    EXPECT_STREQ(out, "GET /device/getbind?token=TOK&deviceType=0 HTTP/1.1\nHost: cube.example\n\r\n\r\n");
    SET(appStoreUrlInfo.ServerURL, "store.example");
    char plug[1024] = "kept|";  // builders append
    ASSERT_EQ(GenerateGetPluginUrl(plug), 0);
    EXPECT_STREQ(plug, "kept|GET /device/connect?token=TOK&MAC=001122334455 HTTP/1.1\nHost: store.example\r\n\r\n");
}

TEST_F(AppStore, RequestThatDoesNotFitOrForgesHeadersLeavesTheBufferAsItWas) {
    std::string prefix(900, 'p');
    SET(out, prefix);
    EXPECT_EQ(GenerateGetAppStoreToken(out), -1);
    EXPECT_EQ(std::string(out), prefix);
    platform().stored_token = std::string(1023, 't');
    out[0] = '\0';
    EXPECT_EQ(GenerateGetAppStoreUrl(out), -1);
    EXPECT_EQ(GenerateGetPluginUrl(out), -1);
    EXPECT_STREQ(out, "");
    platform().stored_token = "TOK";
    SET(cubeplatinfo.MgtURL, "h\r\nX-Evil: 1");
    EXPECT_EQ(GenerateGetAppStoreUrl(out), -1);
    EXPECT_EQ(GenerateGetAppStoreToken(out), -1);
    EXPECT_STREQ(out, "");
}

TEST_F(AppStore, TokenReplies) {
    const int kAny = -1000;  // an over-long number: its value is not checked
    // A token reply and what it leaves in the token record.
    struct Case {
        Case(std::string text, int rc) : reply(std::move(text)), rc(rc) {}
        Case &grants(std::string t, std::string s, int expires) {
            return token = std::move(t), scope = std::move(s), expire = expires, auth = 0, *this;
        }
        Case &refuses(const char *e, const char *d) { return error = e, description = d, *this; }

        std::string reply;
        int rc, auth = 1;  // auth: authResult, 0 when a token was granted
        std::string token, scope;
        const char *error = "", *description = "";
        int expire = 0;
    };
    const Case cases[] = {
        Case("HTTP/1.1 200 OK\r\n\r\n{\"access_token\":\"T1\",\"expire_in\":\"7200\",\"scope\":\"s\"}", 0)
            .grants("T1", "s", 7200),
        Case("{\"access_token\":\"T2\",\"expire_in\":3600,\"scope\":\"s\"}", 0).grants("T2", "s", 0),
        Case("{\"access_token\":\"T3\",\"scope\":\"s\"}", -1).grants("T3", "s", 0),
        Case("{\"access_token\":\"T4\",\"expire_in\":\"5\"}", -1).grants("T4", "", 5),
        Case("HTTP/1.1 400 Bad\r\n\r\n{\"error\":\"invalid_grant\",\"error_description\":\"no\"}", 0)
            .refuses("invalid_grant", "no"),
        Case("{\"error\":\"e\"}", -1).refuses("e", ""),
        Case("{\"other\":1}", -1),
        Case("HTTP/1.1 502 Bad Gateway\r\n\r\n<html>", -1),
        Case("{\"access_token\":\"" + std::string(3000, 'a') + "\",\"expire_in\":\"" + std::string(100, '9') +
                 "\",\"scope\":\"" + std::string(500, 's') + "\"}", 0)
            .grants(std::string(1023, 'a'), std::string(127, 's'), kAny),
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.reply.substr(0, 60));
        SET(appStoreTokenInfo.error, "stale");
        EXPECT_EQ(AppProcessGetStoreTokenReply(c.reply.c_str()), c.rc);
        EXPECT_EQ(authResult, c.auth);
        EXPECT_EQ(appStoreTokenInfo.access_token, c.token);
        EXPECT_EQ(appStoreTokenInfo.scope, c.scope);
        EXPECT_STREQ(appStoreTokenInfo.error, c.error);
        EXPECT_STREQ(appStoreTokenInfo.error_description, c.description);
        if (c.expire != kAny) {
            EXPECT_EQ(appStoreTokenInfo.expire_in, c.expire);
        }
        EXPECT_EQ(appStoreTokenInfo.obtained, c.auth == 0 ? timep : 0);
    }
    EXPECT_EQ(AppProcessGetStoreTokenReply(nullptr), -1);
}

TEST_F(AppStore, AddressReplies) {
    const std::string full = "{\"Result\":0,\"ServerURL\":\"s1\",\"DownloadURL\":\"d1\",\"ServerURL1\":\"u1\"}";
    ASSERT_EQ(AppProcessGetStoreUrlReply(("HTTP/1.1 200 OK\n\n" + full).c_str()), 0);
    EXPECT_STREQ(appStoreUrlInfo.DownloadURL, "d1");
    EXPECT_EQ(AppProcessGetStoreUrlReply("{\"Result\":-1}"), 0);  // no ServerURL: record kept
    EXPECT_EQ(urlResult, -2);
    EXPECT_STREQ(appStoreUrlInfo.ServerURL, "s1");
    EXPECT_EQ(AppProcessGetStoreUrlReply("{\"ServerURL\":\"s2\",\"ServerURL1\":\"u2\"}"), -1);
    EXPECT_EQ(urlResult, 0);
    EXPECT_STREQ(appStoreUrlInfo.ServerURL, "s1");
    ASSERT_EQ(AppProcessGetStoreUrlReply(("{\"ServerURL\":\"" + std::string(500, 'x') +
                                          "\",\"DownloadURL\":7,\"ServerURL1\":\"u\"}").c_str()), 0);
    EXPECT_EQ(std::string(appStoreUrlInfo.ServerURL), std::string(127, 'x'));
    EXPECT_STREQ(appStoreUrlInfo.DownloadURL, "");

    EXPECT_EQ(AppProcessGetPluginUrlReply("{\"ServerURL\":\"p\"}"), -1);
    EXPECT_EQ(AppProcessGetPluginUrlReply("{\"Result\":4}"), -1);
    EXPECT_EQ(pluginUrlResult, 4);
    ASSERT_EQ(AppProcessGetPluginUrlReply(("{\"Result\":\"0\",\"ServerURL\":\"" + std::string(300, 'p') + "\"}").c_str()), 0);
    EXPECT_EQ(std::string(pluginplatinfo.MgtURL), std::string(127, 'p'));
    SET(pluginplatinfo.MgtURL, "configured.example");
    ASSERT_EQ(AppProcessGetPluginUrlReply("{\"Result\":0,\"ServerURL\":\"other\"}"), 0);
    EXPECT_STREQ(pluginplatinfo.MgtURL, "configured.example");
}

TEST_F(AppStore, ExchangesGoThroughTheHostSender) {
    // No stored token: one token exchange with the default cube host instead.
    cubeplatinfo.MgtURL[0] = '\0';
    setenv("QDQUICK_DEFAULT_CUBE", "cube.lab", 1);
    platform().store_replies = {"{\"access_token\":\"NEW\",\"expire_in\":\"60\",\"scope\":\"s\"}"};
    EXPECT_EQ(AppGetStoreUrl(), -1);
    EXPECT_EQ(platform().calls_named("AppSendRequestToPrivateSmartPlat"),
              std::vector<std::string>{"AppSendRequestToPrivateSmartPlat cube.lab 443"});
    EXPECT_EQ(platform().store_requests.at(0).rfind("POST /oauth2.0/authorize", 0), 0u);
    EXPECT_STREQ(appStoreTokenInfo.access_token, "NEW");

    platform().reset();
    platform().stored_token = "NEW";
    platform().store_replies = {"{\"ServerURL\":\"store.lab\",\"DownloadURL\":\"d\",\"ServerURL1\":\"u\"}",
                                "{\"Result\":0,\"ServerURL\":\"plugin.lab\"}"};
    EXPECT_EQ(AppGetStoreUrl(), 0);
    EXPECT_EQ(AppGetPluginUrl(), 0);
    EXPECT_EQ(platform().calls_named("AppSendRequestToPrivateSmartPlat"),
              (std::vector<std::string>{"AppSendRequestToPrivateSmartPlat cube.lab 443",
                                        "AppSendRequestToPrivateSmartPlat store.lab 443"}));
    EXPECT_STREQ(pluginplatinfo.MgtURL, "plugin.lab");
    // A failed send keeps the records.
    EXPECT_EQ(AppGetStoreUrl(), -1);
    EXPECT_STREQ(appStoreUrlInfo.ServerURL, "store.lab");
}

TEST_F(AppStore, StoredTokenIsTheLastLineOfTheFile) {
    const std::string file = qdq_test::in_root("/qdconf/app_store_token");
    char token[1024] = "untouched";
    unlink(file.c_str());
    EXPECT_EQ(getStoredToken(token), 0);
    EXPECT_STREQ(token, "untouched");
    qdq_test::write_file(file, "old\nnewest\n");
    EXPECT_EQ(getStoredToken(token), 0);
    EXPECT_STREQ(token, "newest");
    qdq_test::write_file(file, std::string(450, 'x') + "\n");  // read in pieces of 199
    EXPECT_EQ(getStoredToken(token), 0);
    EXPECT_EQ(std::string(token), std::string(52, 'x'));
}

TEST_F(AppStore, PluginWaitEndsOnRegistrationOrAfterFiveRounds) {
    const std::string log = qdq_test::in_root("/var/shrcadlog.txt");
    pluginplatinfo.regflag = 1;
    SET(pluginplatinfo.MgtURL, "p");
    EXPECT_EQ(AppStoreConnectPluginPlat(), 0);
    EXPECT_NE(qdq_test::read_file(log).find("count:0\tpluginplatinfo.regflag:1"), std::string::npos);
    pluginplatinfo.regflag = 0;
    EXPECT_EQ(AppStoreReportRequestPlugin(), 0);
    EXPECT_NE(qdq_test::read_file(log).find("count:5\tpluginplatinfo.regflag:0"), std::string::npos);
}

}  // namespace
