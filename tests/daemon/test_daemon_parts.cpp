// The daemon's answers and file handling, without platforms: quick-install
// and ability answers, the configuration rewrite on a platform move, and
// the checks on plugin texts that end up in paths and shell commands.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <arpa/inet.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "ability.h"
#include "distri.h"
#include "plugin_files.h"
#include "quick_install.h"
#include "sessions.h"
#include "threads.h"
#include "common/socket.h"
#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

std::string field_of(const char *json, const char *key) {
    cJSON *o = cJSON_Parse(json);
    const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, key);
    std::string out = cJSON_IsString(v) ? v->valuestring : cJSON_IsNumber(v) ? std::to_string(v->valueint) : "";
    cJSON_Delete(o);
    return out;
}

// The commands themselves are answered end to end (test_daemon_gateway.py);
// here the answers' bounds and the refusals of bad requests.
TEST(DaemonQuickInstall, AnswersAreBoundedJson) {
    std::snprintf(getSdkDevInfo()->devsn, sizeof getSdkDevInfo()->devsn, "%s", "SN77");
    struct Case {
        const char *request;
        const char *result;
        const char *key, *value;
    } cases[] = {
        {R"({"Cmd":"Discover"})", "0", "SN", "SN77"},
        {R"({"Cmd":7})", "-1", nullptr, nullptr},
        {"not json", "-1", "Error", "request is not a JSON object"},
        {nullptr, "-1", nullptr, nullptr},
    };
    for (const Case &c : cases) {
        char reply[512];
        std::memset(reply, 'x', sizeof reply);
        qdd::answer_quick_install(reply, sizeof reply, c.request);
        ASSERT_LT(strnlen(reply, sizeof reply), sizeof reply) << c.request;
        EXPECT_EQ(field_of(reply, "Result"), c.result) << reply;
        if (c.key != nullptr) {
            EXPECT_EQ(field_of(reply, c.key), c.value) << reply;
        }
    }
    // A serial of 255 characters does not fit the 511-character answer.
    std::memset(getSdkDevInfo()->devsn, 'S', sizeof getSdkDevInfo()->devsn - 1);
    std::memset(getSdkDevInfo()->model, 'M', sizeof getSdkDevInfo()->model - 1);
    char reply[512];
    qdd::answer_quick_install(reply, sizeof reply, R"({"Cmd":"Discover"})");
    EXPECT_EQ(field_of(reply, "Error"), "answer too long");
    std::memset(getSdkDevInfo(), 0, sizeof(deviceinfo_t));
}

TEST(DaemonAbility, ResultIsReplacedAndAHostileNameCut) {
    struct Case {
        std::string cmd;
        int result;
        const char *key;
    } cases[] = {{"GetDeviceInfo", 0, "MAC"}, {std::string(300, 'Z'), -1, "Error"}};
    for (const Case &c : cases) {
        cJSON *cmd = cJSON_CreateObject();
        cJSON_AddStringToObject(cmd, "CmdType", c.cmd.c_str());
        cJSON_AddNumberToObject(cmd, "Result", 99);  // replaced, not doubled
        qdd::run_ability(cmd, 5);
        EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(cmd, "Result")->valueint, c.result) << c.cmd.substr(0, 20);
        int results = 0;
        for (const cJSON *m = cmd->child; m != nullptr; m = m->next) results += std::strcmp(m->string, "Result") == 0;
        EXPECT_EQ(results, 1);
        const cJSON *v = cJSON_GetObjectItemCaseSensitive(cmd, c.key);
        ASSERT_TRUE(cJSON_IsString(v));
        EXPECT_LT(std::strlen(v->valuestring), 100u);  // a hostile name is cut
        cJSON_Delete(cmd);
    }
}

TEST(DaemonDistri, NewAddressIsWrittenAndTheRestKept) {
    const std::string path = qdq_test::in_root("/distri.json");
    std::ofstream(path) << R"({"device":{"serial":"A"},"platforms":{"manage":{"address":"x","port":1,"local_port":17100}}})";
    ASSERT_TRUE(qdd::record_platform_address(path, 2, "10.1.2.3", 60009));
    ASSERT_TRUE(qdd::record_platform_address(path, 1, "cube.example", 12000));
    const std::string text = qdq_test::read_file(path);
    cJSON *doc = cJSON_Parse(text.c_str());
    ASSERT_NE(doc, nullptr) << text;
    const cJSON *p = cJSON_GetObjectItem(doc, "platforms");
    EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetObjectItem(p, "manage"), "address")->valuestring, "10.1.2.3");
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetObjectItem(p, "manage"), "local_port")->valueint, 17100);
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetObjectItem(p, "cube"), "port")->valueint, 12000);
    EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetObjectItem(doc, "device"), "serial")->valuestring, "A");
    cJSON_Delete(doc);

    // A file that is not a JSON object is left alone.
    std::ofstream(path) << "garbage";
    EXPECT_FALSE(qdd::record_platform_address(path, 2, "10.1.2.3", 60009));
    EXPECT_EQ(qdq_test::read_file(path), "garbage");
    EXPECT_FALSE(qdd::record_platform_address(path, 3, "10.1.2.3", 60009));
}

TEST(DaemonPluginTexts, OnlySafeNamesAndAddressesPass) {
    for (const char *good : {"com.qdquick.example.sample", "b01_osgi", "v1.0-rc2"})
        EXPECT_TRUE(qdd::safe_word(good, 128, false)) << good;
    for (const char *bad : {"", "a/b", "..", "a..b", "x;reboot", "a b", "$(id)", "name\n"})
        EXPECT_FALSE(qdd::safe_word(bad, 128, false)) << bad;
    EXPECT_FALSE(qdd::safe_word(std::string(128, 'a').c_str(), 128, false));
    EXPECT_TRUE(qdd::safe_url("http://127.0.0.1:60080/sample-1.0.cpk", 128));
    EXPECT_TRUE(qdd::safe_url("https://h.example/p%20q.cpk", 128));
    for (const char *bad : {"ftp://h/x.cpk", "http://h/x.cpk;reboot", "http://h/`id`.cpk", "http://h/x.cpk&",
                            "http://h/a b.cpk", "/local/x.cpk"})
        EXPECT_FALSE(qdd::safe_url(bad, 128)) << bad;
}

TEST(DaemonPluginTexts, DescriptorLimitsHoldOnlyForUserPlugins) {
    const std::string dir = qdd::plugin_dir("com.x.demo");
    ASSERT_EQ(dir, qdq_test::in_root("/qdconf/CPlugin/demo/"));
    std::filesystem::create_directories(dir);
    struct Case {
        const char *right;
        int cpu;
    } cases[] = {{"user", 30}, {"admin", -1}, {"", -1}};
    for (const Case &c : cases) {
        std::ofstream(dir + "Info.plugin") << "Name: com.x.demo\nType: app\nRight: " << c.right
                                           << "\nEntryFile: bin/demo\nCpu: 30\nVirtualRam: 4096\nSocket: 8\n";
        qdd::PluginDescriptor d;
        ASSERT_TRUE(qdd::read_descriptor("com.x.demo", d));
        EXPECT_EQ(d.entry, "demo");
        EXPECT_EQ(d.cpu, c.cpu) << c.right;
        EXPECT_EQ(d.vram, c.cpu < 0 ? -1 : 4096);
    }
    qdd::PluginDescriptor none;
    EXPECT_FALSE(qdd::read_descriptor("com.x.absent", none));
}

// A cube platform that never answers, retried on timer 8: each retry fails
// at its Boot and leaves the registered manage session alone.
TEST(DaemonSessions, SilentCubeRetriesLeaveTheManageSessionAlone) {
    qdq::Fd silent(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in a{};
    qdq::ipv4_address("127.0.0.1", 0, a);
    ASSERT_EQ(bind(silent.get(), reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    getsockname(silent.get(), reinterpret_cast<sockaddr *>(&a), &len);
    qdd::Config c;
    c.cube.address = "127.0.0.1";
    c.cube.port = ntohs(a.sin_port);
    qdd::sessions_configure(c);
    getSdkDevInfo()->ipmode = AF_INET;
    std::snprintf(manageplatinfo.MgtURL, sizeof manageplatinfo.MgtURL, "10.0.0.2");
    manageplatinfo.regflag = 1;
    for (int retry = 0; retry < 3; ++retry) {
        qdd::sessions_on_cube_timer();
        ASSERT_TRUE(qdd::wait_session_threads(30));
        EXPECT_STREQ(cubeplatinfo.status, "connect_failed");
        EXPECT_EQ(manageplatinfo.regflag, 1);
        EXPECT_STREQ(manageplatinfo.MgtURL, "10.0.0.2");
    }
    manageplatinfo.regflag = 0;
}

}  // namespace
