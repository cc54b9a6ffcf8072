#include "config.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "config_reader.h"

namespace qdd {

namespace {

// Capacities of the record fields the values end up in.
constexpr std::size_t kSerialCap = 256, kMacCap = 128, kModelCap = 256, kVersionCap = 64,
                      kLoidCap = 128, kIpCap = 320, kAreaCap = 32, kPppoeCap = 72,
                      kAddressCap = 128, kRootCap = 512, kInterfaceCap = 16;

bool has_blank(const std::string &s) {
    return s.find_first_of(" \t\r\n\"'`$\\;|&<>") != std::string::npos;
}

bool acceptable_interface(const std::string &name) {
    if (name.empty()) return true;
    if (name[0] == '-') return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-' &&
            !(c == '+' && i + 1 == name.size()))
            return false;
    }
    return true;
}

void read_platform(ConfigReader &platforms, const char *key, PlatformConfig &p, bool has_local_port) {
    ConfigReader r = platforms.child(key);
    r.text("address", p.address, kAddressCap, true);
    if (r.ok() && !acceptable_address(p.address)) r.fail("address", "must be a host name or an IP address");
    r.port("port", p.port, false);
    if (has_local_port) r.port("local_port", p.local_port, true);
    r.finish();
}

void read_device(ConfigReader &top, Config &c) {
    ConfigReader d = top.child("device");
    d.text("serial", c.serial, kSerialCap, true);
    d.text("mac", c.mac, kMacCap);
    d.text("mac_marker", c.mac_marker, kSerialCap);
    d.text("model", c.model, kModelCap);
    d.text("firmware_version", c.firmware_version, kVersionCap);
    d.text("hardware_version", c.hardware_version, kVersionCap);
    d.text("loid", c.loid, kLoidCap);
    d.integer("ip_mode", c.ip_mode, 4, 6);
    if (d.ok() && c.ip_mode == 5) d.fail("ip_mode", "must be 4 or 6");
    d.text("ip_address", c.ip_address, kIpCap, true);
    unsigned char buf[sizeof(struct in6_addr)];
    if (d.ok() && inet_pton(c.ip_mode == 6 ? AF_INET6 : AF_INET, c.ip_address.c_str(), buf) != 1)
        d.fail("ip_address", c.ip_mode == 6 ? "must be an IPv6 address (ip_mode is 6)"
                                             : "must be an IPv4 address (ip_mode is 4)");
    d.text("area_code", c.area_code, kAreaCap);
    d.text("pppoe_name", c.pppoe_name, kPppoeCap);
    d.flag("card", c.card);
    d.integer("register_type", c.register_type, 0, 255);
    d.finish();
}

}  // namespace

bool acceptable_address(const std::string &address) {
    return !address.empty() && address.size() < kAddressCap && !has_blank(address);
}

bool parse_config(const char *text, Config &c, std::string &error) {
    error.clear();
    const char *end = nullptr;
    cJSON *root = cJSON_ParseWithOpts(text, &end, 0);
    if (root == nullptr || !cJSON_IsObject(root)) {
        cJSON_Delete(root);
        std::string near = end != nullptr ? std::string(end).substr(0, 20) : std::string();
        error = "(file): not a JSON object" + (near.empty() ? std::string() : " (error before: " + near + ")");
        return false;
    }
    ConfigReader top(root, "", &error);
    top.text("root", c.root, kRootCap);
    if (top.ok() && !c.root.empty() && (c.root[0] != '/' || has_blank(c.root)))
        top.fail("root", "must be an absolute path without blanks or quotes");
    read_device(top, c);

    ConfigReader platforms = top.child("platforms");
    read_platform(platforms, "cube", c.cube, true);
    read_platform(platforms, "manage", c.manage, true);
    read_platform(platforms, "plugin", c.plugin, false);
    platforms.finish();

    ConfigReader local = top.child("local");
    local.port("tcp_port", c.local_tcp_port, false);
    local.flag("refuse_tcp_clients", c.refuse_tcp_clients);
    local.flag("plugin_orders", c.plugin_orders);
    local.text("lan_interface", c.lan_interface, kInterfaceCap);
    if (local.ok() && !acceptable_interface(c.lan_interface))
        local.fail("lan_interface", "must be an interface name (letters, digits, '.', '_', '-', a trailing '+')");
    local.finish();

    ConfigReader services = top.child("services");
    services.flag("cube", c.cube.enabled);
    services.flag("manage", c.manage.enabled);
    services.flag("plugin", c.plugin.enabled);
    services.flag("local_udp", c.local_udp);
    services.flag("local_tcp", c.local_tcp);
    services.flag("quick_install", c.quick_install);
    services.finish();

    ConfigReader plugins = top.child("plugins");
    plugins.flag("run_after_install", c.run_after_install);
    plugins.finish();

    top.integer("log_size_kib", c.log_size_kib, -1, 1048576);
    top.integer("retry_seconds", c.retry_seconds, 1, 86400);
    top.finish();
    cJSON_Delete(root);
    return error.empty();
}

bool load_config(const std::string &path, Config &c, std::string &error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": cannot read: " + std::strerror(errno);
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (!parse_config(text.str().c_str(), c, error)) {
        error = path + ": " + error;
        return false;
    }
    // Kept absolute: plugin starts change the working directory later.
    char *real = realpath(path.c_str(), nullptr);
    c.path = real != nullptr ? real : path;
    std::free(real);
    return true;
}

std::string default_config_path() {
    const char *root = std::getenv("QDQUICK_ROOT");
    std::string r = root != nullptr ? root : "";
    while (!r.empty() && r.back() == '/') r.pop_back();
    return r + "/etc/qdquickd.json";
}

}  // namespace qdd
