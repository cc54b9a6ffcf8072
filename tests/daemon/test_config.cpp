// The configuration table: each bad value is refused with the dotted name of
// its field; a reload sorts what changed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config.h"
#include "reload.h"

namespace {

TEST(DaemonConfig, BadValuesAreRefusedWithTheFieldNamed) {
    struct {
        const char *text;
        const char *field;  // the error must start with this
    } cases[] = {
        {R"({"device": {"serial": ""}})", "device.serial: must not be empty"},
        {R"({"device": {"serial": 42}})", "device.serial: must be a string"},
        {R"({"device": {"firmware_version": "0123456789012345678901234567890123456789012345678901234567890123"}})",
         "device.firmware_version: longer than 63"},
        {R"({"device": {"ip_mode": 6, "ip_address": "10.0.0.1"}})", "device.ip_address: must be an IPv6"},
        {R"({"device": {"ip_address": "::1"}})", "device.ip_address: must be an IPv4"},
        {R"({"device": {"ip_mode": 5}})", "device.ip_mode: must be 4 or 6"},
        {R"({"device": {"card": 1}})", "device.card: must be true or false"},
        {R"({"device": {"register_type": 256}})", "device.register_type: must lie between 0 and 255"},
        {R"({"device": {"colour": "red"}})", "device.colour: unknown field"},
        {R"({"device": []})", "device: must be an object"},
        {R"({"platforms": {"cube": {"address": ""}}})", "platforms.cube.address: must not be empty"},
        {R"({"platforms": {"manage": {"address": "a b"}}})", "platforms.manage.address: must be a host name"},
        {R"({"platforms": {"manage": {"port": 0}}})", "platforms.manage.port: must lie between 1 and 65535"},
        {R"({"platforms": {"manage": {"local_port": 1.5}}})", "platforms.manage.local_port: must be a whole number"},
        {R"({"platforms": {"plugin": {"local_port": 17200}}})", "platforms.plugin.local_port: unknown field"},
        {R"({"local": {"tcp_port": 65536}})", "local.tcp_port"},
        {R"({"local": {"lan_interface": "-j"}})", "local.lan_interface: must be an interface name"},
        {R"({"local": {"lan_interface": "br lan"}})", "local.lan_interface: must be an interface name"},
        {R"({"local": {"lan_interface": "interface-name-16"}})", "local.lan_interface: longer than 15"},
        {R"({"local": {"plugin_orders": 1}})", "local.plugin_orders: must be true or false"},
        {R"({"services": {"manage": "on"}})", "services.manage: must be true or false"},
        {R"({"root": "var/x"})", "root: must be an absolute path"},
        {R"({"root": "/tmp/a;rm"})", "root: must be an absolute path"},
        {R"({"device": {"serial": "x"},})", "line 1, column 29: JSON syntax error"},
        {"{\n\"root\": \"/x\"\n\n  oops}", "line 4, column 3: JSON syntax error"},
        {"[]", "(file): not a JSON object"},
        {R"({"platforms": {"cube": {"port": 1, "port": 2}}})", "platforms.cube.port: given twice"},
        {R"({"device": {"mac": "zz;rm -rf /"}})", "device.mac: must be 12 hex digits"},
        {R"({"device": {"mac": "00:11:22-33:44:55"}})", "device.mac: must be 12 hex digits"},
        {R"({"device": {"mac": "0011223344556"}})", "device.mac: must be 12 hex digits"},
        {R"({"services": {"on_failure": "ignore"}})", "services.on_failure: must be \"fatal\" or \"degraded\""},
    };
    for (const auto &c : cases) {
        qdd::Config config;
        std::string error;
        EXPECT_FALSE(qdd::parse_config(c.text, config, error)) << c.text;
        EXPECT_EQ(error.rfind(c.field, 0), 0u) << c.text << "\n  gave: " << error;
    }
}

// SIGHUP: which fields changed between two files, and which of them the
// running daemon takes without a restart.
TEST(DaemonConfig, ReloadSortsChangedFields) {
    struct {
        const char *before, *after;
        std::vector<std::string> applied, restart;
    } cases[] = {
        {R"({"retry_seconds": 5})", R"({"retry_seconds": 5})", {}, {}},
        {R"({"platforms": {"cube": {"port": 1}}})", R"({"platforms": {"cube": {"port": 2, "address": "h"}}})",
         {"platforms.cube.port", "platforms.cube.address"}, {}},
        {R"({"device": {"serial": "A"}, "log_size_kib": 1})", R"({"device": {}, "log_size_kib": 2})",
         {"log_size_kib"}, {"device.serial"}},
        {R"({"services": {"cube": true}})", R"({"services": {"cube": false}, "local": {"tcp_port": 1}})", {},
         {"services.cube", "local"}},
    };
    for (const auto &c : cases) {
        qdd::Config running, fresh;
        std::string error;
        ASSERT_TRUE(qdd::parse_config(c.before, running, error)) << error;
        ASSERT_TRUE(qdd::parse_config(c.after, fresh, error)) << error;
        running.text = c.before;
        fresh.text = c.after;
        const qdd::ReloadPlan plan = qdd::plan_reload(running, fresh);
        EXPECT_EQ(plan.applied, c.applied) << c.after;
        EXPECT_EQ(plan.restart, c.restart) << c.after;
        // Applied ones are taken over, the others stay as they run.
        EXPECT_EQ(running.retry_seconds, fresh.retry_seconds);
        EXPECT_EQ(running.cube.port, fresh.cube.port);
        EXPECT_TRUE(running.cube.enabled);  // services.cube: only at the next start
    }
}

}  // namespace
