// The app store client with the real HTTPS sender against the simulator's
// store: token, store addresses and plugin platform address over verified
// TLS on loopback.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qdquick/qdquick.h"
#include "sim_process.h"
#include "test_env.h"

namespace {

TEST(AppStoreEndToEnd, TokenStoreAndPluginAddressesFromTheSimulator) {
    const std::string certs = qdq_test::in_root("/sim-certs");
    qdq_test::SimProcess sim({"--appstore-port", "0", "--appstore-cert-dir", certs, "--serial", "SN-E2E",
                              "--loid", " blank-loid", "--mac", "A0B1C2D3E4F5"});
    ASSERT_TRUE(sim.ready());
    ASSERT_NE(sim.port("appstore"), 0u);
    setenv("QDPLATFORM_CA_FILE", (certs + "/cert.pem").c_str(), 1);
    port = static_cast<int>(sim.port("appstore"));
    std::snprintf(deviceinfo.mac, sizeof deviceinfo.mac, "A0B1C2D3E4F5");
    std::snprintf(deviceinfo.devsn, sizeof deviceinfo.devsn, "SN-E2E");
    std::snprintf(deviceinfo.loid, sizeof deviceinfo.loid, " blank-loid");
    std::snprintf(cubeplatinfo.MgtURL, sizeof cubeplatinfo.MgtURL, "127.0.0.1");
    pluginplatinfo.MgtURL[0] = '\0';

    // No stored token yet: the address request turns into a token exchange.
    const std::string token_file = qdq_test::in_root("/qdconf/app_store_token");
    unlink(token_file.c_str());
    EXPECT_EQ(AppGetStoreUrl(), -1);
    ASSERT_EQ(authResult, 0);
    ASSERT_STRNE(appStoreTokenInfo.access_token, "");
    EXPECT_EQ(appStoreTokenInfo.expire_in, 7200);
    EXPECT_EQ(sim.records_with({"\"kind\": \"token\"", "\"credential\": \"5280416 86420\"",
                                "\"credential_ok\": true", "\"body_ok\": true"}).size(), 1u);

    // The gateway's other programs keep the token; the library reads it back.
    qdq_test::write_file(token_file, std::string(appStoreTokenInfo.access_token) + "\n");
    ASSERT_EQ(AppGetStoreUrl(), 0);
    EXPECT_STREQ(appStoreUrlInfo.ServerURL, "127.0.0.1");
    EXPECT_EQ(std::string(appStoreUrlInfo.DownloadURL), "https://127.0.0.1:" + std::to_string(port) + "/download");
    ASSERT_EQ(AppGetPluginUrl(), 0);
    EXPECT_EQ(pluginUrlResult, 0);
    EXPECT_STREQ(pluginplatinfo.MgtURL, "127.0.0.1");
    EXPECT_EQ(sim.records_with({"\"kind\": \"getbind\"", "\"token_ok\": true"}).size(), 1u);
    EXPECT_EQ(sim.records_with({"\"kind\": \"connect\"", "\"token_ok\": true", "\"mac_ok\": true"}).size(), 1u);
}

}  // namespace
