#include "config.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Twelve hex digits, or six pairs split by ':' or '-' (one kind throughout).
bool mac_text(const std::string &m) {
    const bool split = m.size() == 17;
    if (!split && m.size() != 12) return false;
    for (std::size_t i = 0; i < m.size(); ++i) {
        if (split && i % 3 == 2) {
            if (m[i] != m[2] || (m[i] != ':' && m[i] != '-')) return false;
        } else if (!std::isxdigit(static_cast<unsigned char>(m[i]))) {
            return false;
        }
    }
    return true;
}

// "line L, column C" of `at` in `text`, for a JSON syntax error.
std::string position(const char *text, const char *at) {
    int line = 1, column = 1;
    for (const char *p = text; p < at && *p != '\0'; ++p) {
        if (*p == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
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
    if (d.ok() && !c.mac.empty() && !mac_text(c.mac))
        d.fail("mac", "must be 12 hex digits, or 6 pairs split by ':' or '-'");
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
    if (root == nullptr) {
        const char *at = end != nullptr ? end : cJSON_GetErrorPtr();
        error = at != nullptr ? position(text, at) + ": JSON syntax error at '" + std::string(at).substr(0, 20) + "'"
                              : "(file): not JSON";
        return false;
    }
    if (!cJSON_IsObject(root)) {
        cJSON_Delete(root);
        error = "(file): not a JSON object";
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
    std::string on_failure = c.missing_service_fatal ? "fatal" : "degraded";
    services.text("on_failure", on_failure, 16);
    if (services.ok() && on_failure != "fatal" && on_failure != "degraded")
        services.fail("on_failure", "must be \"fatal\" or \"degraded\"");
    c.missing_service_fatal = on_failure == "fatal";
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
    c.text = text.str();
    // Kept absolute: plugin starts change the working directory later.
    char *real = realpath(path.c_str(), nullptr);
    c.path = real != nullptr ? real : path;
    std::free(real);
    return true;
}

bool check_root(const Config &c, std::string &error) {
    const char *env = std::getenv("QDQUICK_ROOT");
    const std::string root = !c.root.empty() ? c.root : env != nullptr && env[0] != '\0' ? env : "/";
    struct stat st;
    if (stat(root.c_str(), &st) != 0)
        error = "root " + root + " does not exist";
    else if (!S_ISDIR(st.st_mode))
        error = "root " + root + " is not a directory";
    else if (access(root.c_str(), W_OK) != 0)
        error = "root " + root + " is not writable";
    else
        return true;
    return false;
}

std::string default_config_path() {
    const char *root = std::getenv("QDQUICK_ROOT");
    std::string r = root != nullptr ? root : "";
    while (!r.empty() && r.back() == '/') r.pop_back();
    return r + "/etc/qdquickd.json";
}

}  // namespace qdd
