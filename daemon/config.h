// The daemon's configuration: one JSON file, every field optional with the
// defaults documented in docs/daemon.md. A bad field is refused with its
// dotted name ("device.serial: ..."), so an operator knows what to fix.
#pragma once

#include <string>

namespace qdd {

struct PlatformConfig {
    std::string address;
    unsigned port = 0;
    unsigned local_port = 0;  // 0: the library draws one
    bool enabled = true;
};

struct Config {
    std::string path;  // absolute path of the file read (slot 2 rewrites it)
    std::string root;  // "" keeps $QDQUICK_ROOT as it is
    std::string text;  // the file as read: a reload compares the new one with it

    // Device identity.
    std::string serial = "SN0001";
    std::string mac;         // "" derives it from the serial
    std::string mac_marker;  // marker text for the derivation
    std::string model = "QDQ-GW1";
    std::string firmware_version = "1.0.0";
    std::string hardware_version = "HW1.0";
    std::string loid = "LOID01";
    std::string ip_address = "127.0.0.1";
    int ip_mode = 4;  // 4 or 6
    std::string area_code = "0000";
    std::string pppoe_name;
    bool card = false;
    int register_type = 0;

    PlatformConfig cube{"127.0.0.1", 12112, 0, true};
    PlatformConfig manage{"127.0.0.1", 60001, 0, true};
    PlatformConfig plugin{"127.0.0.1", 60002, 0, true};

    unsigned local_tcp_port = 18998;
    bool refuse_tcp_clients = false;
    bool plugin_orders = false;  // local clients may install and run plugins (a risk)
    std::string lan_interface;   // "" opens the local ports on every interface
    bool local_udp = true;
    bool local_tcp = true;
    bool quick_install = true;
    bool missing_service_fatal = true;  // services.on_failure: "fatal" or "degraded"

    int log_size_kib = 2048;
    int retry_seconds = 30;
    bool run_after_install = true;
};

// Parses `text` into `out` (which keeps its defaults for absent fields).
// On failure returns false and sets `error` to "<field>: <reason>".
bool parse_config(const char *text, Config &out, std::string &error);

// Reads and parses the file at `path`; errors name the file as well.
bool load_config(const std::string &path, Config &out, std::string &error);

// The root the daemon will use (`root`, else $QDQUICK_ROOT, else "/") must
// be an existing, writable directory; otherwise false with `error` set to
// one line naming it.
bool check_root(const Config &c, std::string &error);

// A platform address the configuration accepts (also for addresses that a
// platform hands out, before they are written into the file).
bool acceptable_address(const std::string &address);

// The configuration path when -c is not given: $QDQUICK_ROOT/etc/qdquickd.json.
std::string default_config_path();

}  // namespace qdd
