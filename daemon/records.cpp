#include "records.h"

#include <cstdio>
#include <cstring>

namespace qdd {

namespace {
template <std::size_t N>
void put(char (&field)[N], const std::string &value) {
    std::snprintf(field, N, "%s", value.c_str());
}
}  // namespace

void fill_device(const Config &c) {
    deviceinfo_t *d = getSdkDevInfo();
    put(d->firmwarever, c.firmware_version);
    put(d->hardwarever, c.hardware_version);
    put(d->model, c.model);
    put(d->devsn, c.serial);
    put(d->loid, c.loid);
    put(d->ipaddr, c.ip_address);
    put(d->areacode, c.area_code);
    put(d->pppoename, c.pppoe_name);
    put(d->cardflag, std::string(c.card ? "1" : "0"));
    d->ipmode = static_cast<unsigned char>(c.ip_mode == 6 ? 10 : 2);
    d->regtype = static_cast<unsigned char>(c.register_type);
    std::memset(d->mac, 0, sizeof d->mac);
    if (!c.mac.empty()) {
        put(d->mac, c.mac);
    } else if (!c.mac_marker.empty()) {
        GetMacInSn(c.serial.c_str(), c.mac_marker.c_str());
    } else {
        // No marker: the library's rule without one, the serial's last 12.
        const std::string &sn = c.serial;
        put(d->mac, sn.size() <= 12 ? sn : sn.substr(sn.size() - 12));
    }
    gQuickLogSize = c.log_size_kib;
}

void fill_platform(platinfo *record, const PlatformConfig &p) {
    std::memset(record->MgtURL, 0, sizeof record->MgtURL);
    put(record->MgtURL, p.address);
    record->port = p.port;
    record->localport = p.local_port;
}

void fill_local_service(const Config &c) {
    cubeplatinfo.localsrvport = c.local_tcp_port;
    cubeplatinfo.localability = c.refuse_tcp_clients ? 1 : 0;
    gQuickLocalPluginOrders = c.plugin_orders ? 1 : 0;
    put(gQuickLanInterface, c.lan_interface);
}

std::string record_address(const platinfo *record) {
    char text[160];
    // The fields are written by other threads without a lock: read bounded.
    std::snprintf(text, sizeof text, "%.*s:%u", static_cast<int>(sizeof record->MgtURL) - 1,
                  record->MgtURL, record->port);
    return text;
}

}  // namespace qdd
