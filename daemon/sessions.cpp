#include "sessions.h"

#include <atomic>
#include <mutex>

#include "common/ids.h"
#include "qdquick/qdquick.h"
#include "records.h"
#include "say.h"
#include "threads.h"

namespace qdd {

namespace {

constexpr int kPluginStartDelay = 3;

std::mutex g_mutex;
Config g_config;
std::atomic<bool> g_stopping{false};

// The plattype values must outlive the service threads that read them.
int g_quick_install_type = QDQ_PLAT_QUICKINSTALL;
int g_local_udp_type = QDQ_PLAT_LOCALUDP;
int g_local_tcp_type = QDQ_PLAT_LOCALTCP;

PlatformConfig platform_config(int plattype) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return plattype == 1 ? g_config.cube : plattype == 2 ? g_config.manage : g_config.plugin;
}

int retry_seconds() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_config.retry_seconds;
}

void arm(int seconds, int timerid) {
    if (!g_stopping) AppTimerCreate(seconds, timerid, 0, QdTimeoutHandle);
}

// A connect of another platform may have wiped this record's address.
void refill_if_empty(platinfo *record, int plattype) {
    if (record->MgtURL[0] == '\0') fill_platform(record, platform_config(plattype));
}

int connect_cube() {
    fill_platform(&cubeplatinfo, platform_config(1));
    say("connecting the cube platform at %s", record_address(&cubeplatinfo).c_str());
    const int rc = HGConnectCubePlat(&cubeplatinfo);
    note("cube platform connect ended: %d", rc);
    return rc;
}

// The first sessions, in order: the cube connect clears the manage record,
// so the manage platform is filled and connected only after it. The manage
// connect blocks for as long as its session lasts over TCP.
void *start_body(void *) {
    const PlatformConfig cube = platform_config(1), manage = platform_config(2);
    if (cube.enabled) connect_cube();
    if (manage.enabled && !g_stopping) {
        fill_platform(&manageplatinfo, manage);
        say("connecting the manage platform at %s", record_address(&manageplatinfo).c_str());
        const int rc = HGConnectManagePlat(&manageplatinfo);
        note("manage platform connect returned %d", rc);
    }
    return nullptr;
}

void *cube_again_body(void *) {
    const bool manage_was_registered = manageplatinfo.regflag != 0;
    connect_cube();
    // A cube connect that reached its platform clears the whole manage
    // record, session included; one that did not (a silent cube platform)
    // leaves the manage session alone, and it is not connected again.
    refill_if_empty(&manageplatinfo, 2);
    if (manage_was_registered && manageplatinfo.regflag == 0 && platform_config(2).enabled)
        arm(1, qdq::kTimerConnectManage);
    return nullptr;
}

void start_plugin_platform() {
    fill_platform(&pluginplatinfo, platform_config(3));
    say("connecting the plugin platform at %s", record_address(&pluginplatinfo).c_str());
    CreateConnectPluginPlatThread();
}

}  // namespace

void sessions_configure(const Config &c) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_config = c;
}

void sessions_remember_address(int plattype, const std::string &address, unsigned port) {
    std::lock_guard<std::mutex> lock(g_mutex);
    PlatformConfig &p = plattype == 1 ? g_config.cube : g_config.manage;
    p.address = address;
    p.port = port;
}

void sessions_start() {
    Config c;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        c = g_config;
    }
    fill_local_service(c);
    if (c.quick_install) CreatePrecessUdpReqThread(&g_quick_install_type);
    if (c.local_udp) CreatePrecessUdpReqThread(&g_local_udp_type);
    if (c.local_tcp) CreatePrecessTcpReqThread(&g_local_tcp_type);
    if (c.cube.enabled || c.manage.enabled) {
        if (start_session_thread(start_body, nullptr) != 0) say("cannot start the session thread");
    }
    // Without a manage platform nobody else names the plugin platform.
    if (c.plugin.enabled && !c.manage.enabled) start_plugin_platform();
}

void sessions_on_status(int plattype, const std::string &status, int) {
    if (g_stopping) return;
    if (status == "connect_failed") {
        const int seconds = retry_seconds();
        if (plattype == 1 && getSdkDevInfo()->cuberegistered == 0) {
            note("cube platform: next attempt in %d s", seconds);
            arm(seconds, qdq::kTimerConnectCube);
        } else if (plattype == 2) {
            refill_if_empty(&manageplatinfo, 2);
            note("manage platform: next attempt in %d s", seconds);
            arm(seconds, qdq::kTimerConnectManage);
        } else if (plattype == 3 && pluginplatinfo.MgtURL[0] != '\0') {
            note("plugin platform: next attempt in %d s", seconds);
            arm(seconds, qdq::kTimerConnectPlugin);
        }
        return;
    }
    // The manage platform normally names the plugin platform in its
    // Register reply (which arms the plugin connect itself); the configured
    // address serves when it did not.
    if (plattype == 2 && status == "connected" && platform_config(3).enabled &&
        pluginplatinfo.MgtURL[0] == '\0' && pluginplatinfo.regflag == 0) {
        fill_platform(&pluginplatinfo, platform_config(3));
        say("the manage platform named no plugin platform; using %s",
            record_address(&pluginplatinfo).c_str());
        arm(kPluginStartDelay, qdq::kTimerConnectPlugin);
    }
}

void sessions_on_cube_timer() {
    if (g_stopping || !platform_config(1).enabled) return;
    if (start_session_thread(cube_again_body, nullptr) != 0) say("cannot start the cube connect thread");
}

bool sessions_stop(double seconds) {
    g_stopping = true;
    HGDisconnectPlat(QDQ_PLAT_PLUGIN);
    HGDisconnectPlat(QDQ_PLAT_MANAGE);
    HGDisconnectPlat(QDQ_PLAT_CUBE);
    // A manage disconnect arms its own reconnect; nothing reconnects now.
    for (int id : {qdq::kTimerConnectCube, qdq::kTimerConnectManage, qdq::kTimerConnectPlugin}) AppTimerDestory(id);
    StopProcessTcpRequest();
    return wait_session_threads(seconds);
}

}  // namespace qdd
