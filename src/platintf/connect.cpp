// Connecting a platform: Boot, Register, the first heartbeat and, over TCP,
// the persistent channel, with each platform's fallbacks and defaults.
#include <cstdio>
#include <cstring>
#include <exception>

#include "common/defaults.h"
#include "common/log.h"
#include "common/thread.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"

namespace {

// A connect that ends without a session gives its connection up: leaving
// an open descriptor in `socketfd` for the next connect to overwrite with -1
// would leak it. (After a transport failure (101) the TCP client has
// already taken its connection out of the record.) A superseded thread
// (102) leaves the record to the newer one.
void release_session_socket(platinfo &rec, int ret) {
    if (ret != kSessionSuperseded) qdq::close_session_socket(&rec);
}

int connect_failed(platinfo &rec, int plattype, const char *function, int line, int ret) {
    release_session_socket(rec, ret);
    rec.isinreg = 0;
    HgSetPlateStatus(plattype, "connect_failed", ret);
    QDQ_LOG("%s %d connect_failed return", function, line);
    return ret;
}

void use_default_address(platinfo &rec, const char *address, unsigned port) {
    if (rec.MgtURL[0] == '\0' || std::strcmp(rec.MgtURL, "0.0.0.0") == 0) {
        QDQ_LOG("Mgturl is %s, use %s\n", rec.MgtURL, address);
        std::snprintf(rec.MgtURL, sizeof rec.MgtURL, "%s", address);
    }
    if (rec.port == 0) rec.port = port;
}

// The heartbeat goes to the register address when the platform named none.
void default_heartbeat_address(platinfo &rec) {
    if (rec.heartbeatip[0] != '\0') return;
    std::snprintf(rec.heartbeatip, sizeof rec.heartbeatip, "%s", rec.curip);
    rec.heartbeatport = rec.port;
}

unsigned local_port(const platinfo *record, unsigned base) {
    if (record != nullptr && record->localport != 0) return record->localport;
    return static_cast<unsigned>(qdq::time_seeded_rand() % 99) + base;
}

// Claims the record for one connect: true when no other connect holds it.
// Test and set in one step: two connects started together (a timer expiry
// and the host, say) would otherwise both go on from the same local port
// and could read each other's Boot replies.
bool claim_connect(platinfo &rec) { return __atomic_exchange_n(&rec.isinreg, 1, __ATOMIC_ACQ_REL) == 0; }

// Start of a manage or cube connect, the record claimed: the thread guard.
void begin_guarded_connect(platinfo &rec, const platinfo *record) {
    platregtid = pthread_self();  // older connect threads give up at their next guard
    rec.localport = local_port(record, 17100);
}

// Disconnects what is registered and clears the record that this platform
// takes over.
void disconnect_and_clear(platinfo &cleared) {
    if (manageplatinfo.regflag != 0) HGDisconnectPlat(QDQ_PLAT_MANAGE);
    if (pluginplatinfo.regflag != 0) HGDisconnectPlat(QDQ_PLAT_PLUGIN);
    // A connection still held is closed rather than lost to the clearing;
    // a local UDP service's socket stays with its service. A cleared
    // record holds no connection: -1, never descriptor 0.
    qdq::close_session_socket(&cleared, true);
    std::memset(&cleared, 0, sizeof cleared);
    cleared.socketfd = -1;
}

int connect_manage(platinfo *record) {
    platinfo &rec = manageplatinfo;
    const int plattype = QDQ_PLAT_MANAGE;
    QDQ_LOG("%s start", "HGConnectManagePlat");
    if (!claim_connect(rec)) {
        QDQ_LOG("anotherr reging mang plat in progress,return");
        return kSessionSuperseded;
    }
    begin_guarded_connect(rec, record);
    AppMgrLogLine(qdq::kLogTrace, "HGConnectManagePlat: localport:%d\tregflag:%d", static_cast<int>(rec.localport),
                  rec.regflag);
    disconnect_and_clear(pluginplatinfo);
    // A connection still held by the record is closed, never just
    // overwritten (an overwritten number would leak). The manage port's
    // local UDP service publishes its socket there too: that one is only
    // taken out, and a service the host started keeps answering.
    qdq::close_session_socket(&rec, true);
    rec.tcpflag = 0;
    use_default_address(rec, qdq::default_manage_address(), 60001);

    int ret = HgProcessBoot(plattype);
    if (is_session_failure(ret)) return connect_failed(rec, plattype, "HGConnectManagePlat", __LINE__, ret);
    if (ret < 0 && ret != -2 && ret != -5) {
        rec.tcpflag = 1;
        ret = HgProcessBoot(plattype);
        if (is_session_failure(ret)) return connect_failed(rec, plattype, "HGConnectManagePlat", __LINE__, ret);
    }
    if (ret == 0) {
        ret = HgProcessRegister(plattype);
        if (is_session_failure(ret)) return connect_failed(rec, plattype, "HGConnectManagePlat", __LINE__, ret);
    }
    if (ret >= 1) {
        HgSetPlateStatus(plattype, "connected", ret);
        if (rec.heartbeatip[0] == '\0') {
            default_heartbeat_address(rec);
            QDQ_LOG("register reply is not heartbeat address, use register address!");
        }
        if (rec.interval == 0) rec.interval = 60;
        rec.firsthb = 1;
        AppTimerCreate(5, qdq::kTimerManageHeartbeat, 0, QdTimeoutHandle);
        if (rec.tcpflag != 0) {
            const int hours = qdq::time_seeded_rand() % 3 + 3;
            QDQ_LOG("time is %d hours!\n", hours);
            AppTimerCreate(hours * 3600, qdq::kTimerConnectManage, 0, QdTimeoutHandle);
            HgProcessPlatTcpConnect(plattype);
        }
    } else {
        // A Register result of 0 leaves the platform registered but the
        // connect failed, with no heartbeat.
        release_session_socket(rec, ret);
        HgSetPlateStatus(plattype, "connect_failed", ret);
    }
    rec.isinreg = 0;
    QDQ_LOG("HGConnectManagePlat return %d regflag:%d", ret, rec.regflag);
    return ret;
}

int connect_cube(platinfo *record) {
    platinfo &rec = cubeplatinfo;
    const int plattype = QDQ_PLAT_CUBE;
    QDQ_LOG("%s start", "HGConnectCubePlat");
    if (!claim_connect(rec)) {
        QDQ_LOG("anotherr reging cube plat in progress,return");
        return kSessionSuperseded;
    }
    begin_guarded_connect(rec, record);
    QDQ_LOG("HGConnectCubePlat() ! localport:%d", static_cast<int>(rec.localport));
    qdq::close_session_socket(&rec, true);
    rec.tcpflag = 0;
    use_default_address(rec, qdq::default_cube_address(), 12112);

    int ret = HgProcessBoot(plattype);
    if (is_session_failure(ret)) return connect_failed(rec, plattype, "HGConnectCubePlat", __LINE__, ret);
    if (ret < 0) {
        rec.tcpflag = 1;
        ret = HgProcessBoot(plattype);
        if (is_session_failure(ret)) return connect_failed(rec, plattype, "HGConnectCubePlat", __LINE__, ret);
    }
    // The cube connect wipes the manage platform's record, address and port
    // included: the cube registration decides where it is. It does so only
    // once the cube platform has answered its Boot: a silent or refusing
    // cube platform, retried by the host, would otherwise tear a working
    // manage session down on every retry.
    if (ret >= 0) disconnect_and_clear(manageplatinfo);
    if (ret == 0) {
        ret = HgProcessRegister(plattype);
        if (is_session_failure(ret)) return connect_failed(rec, plattype, "HGConnectCubePlat", __LINE__, ret);
    }
    if (ret >= 1) {
        HgSetPlateStatus(plattype, "connected", ret);
        deviceinfo.cuberegistered = 1;
        if (rec.tcpflag != 0) AppTimerCreate(1800, qdq::kTimerConnectCube, 0, QdTimeoutHandle);
        qdq::close_session_socket(&rec);  // the cube keeps no connection
    } else {
        release_session_socket(rec, ret);
        HgSetPlateStatus(plattype, "connect_failed", ret);
    }
    rec.isinreg = 0;
    QDQ_LOG("HGConnectCubePlat() ! return %d", ret);
    return ret;
}

int connect_plugin() {
    platinfo &rec = pluginplatinfo;
    const int plattype = QDQ_PLAT_PLUGIN;
    rec.localport = local_port(nullptr, 17200);
    QDQ_LOG("\n######HGConnectPluginPlat() ! localport:%d\tregflag:%d", static_cast<int>(rec.localport), rec.regflag);
    if (!claim_connect(rec)) {
        QDQ_LOG("device is in registing, return!\n");
        return 0;
    }
    if (rec.regflag != 0) HGDisconnectPlat(plattype);
    qdq::close_session_socket(&rec, true);
    rec.tcpflag = 1;
    rec.spareflag = 0;

    int ret = HgProcessBoot(plattype);
    if (ret < 0 || is_session_failure(ret)) return connect_failed(rec, plattype, "HGConnectPluginPlat", __LINE__, ret);
    if (ret == 0) {
        ret = HgProcessRegister(plattype);
        if (ret < 0 || is_session_failure(ret))
            return connect_failed(rec, plattype, "HGConnectPluginPlat", __LINE__, ret);
        if (ret == 0) {
            rec.isinreg = 0;
            default_heartbeat_address(rec);
            rec.interval = 20;  // the plugin platform's own interval is not used
            AppTimerCreate(20, qdq::kTimerPluginHeartbeat, 0, QdTimeoutHandle);
            HgProcessPlatTcpConnect(plattype);
        }
    }
    // A positive Boot or Register result ends without a session.
    if (ret != 0) release_session_socket(rec, ret);
    rec.isinreg = 0;
    QDQ_LOG("HGConnectPluginPlat() end! return %d regflag:%d\n", ret, rec.regflag);
    return ret;
}

}  // namespace

extern "C" QDQ_API int HGConnectManagePlat(platinfo *record) {
    try {
        return connect_manage(record);
    } catch (const std::exception &e) {
        QDQ_LOG("HGConnectManagePlat: %s", e.what());
        manageplatinfo.isinreg = 0;
        return -1;
    }
}

extern "C" QDQ_API int HGConnectCubePlat(platinfo *record) {
    try {
        return connect_cube(record);
    } catch (const std::exception &e) {
        QDQ_LOG("HGConnectCubePlat: %s", e.what());
        cubeplatinfo.isinreg = 0;
        return -1;
    }
}

extern "C" QDQ_API int HGConnectPluginPlat(void) {
    try {
        return connect_plugin();
    } catch (const std::exception &e) {
        QDQ_LOG("HGConnectPluginPlat: %s", e.what());
        pluginplatinfo.isinreg = 0;
        return -1;
    }
}

void *StartProcessConnectPluginPlat(void *) {
    // Started detached (the same as detaching itself first).
    QDQ_LOG("StartProcessConnectPluginPlat start!\n");
    HGConnectPluginPlat();
    QDQ_LOG("StartProcessConnectPluginPlat end! \n");
    return nullptr;
}

extern "C" QDQ_API int CreateConnectPluginPlatThread(void) {
    QDQ_LOG("CreateConnectPluginPlatThread start! \n");
    const int rc = qdq::start_thread(nullptr, StartProcessConnectPluginPlat, nullptr, true, "qdq-plugin-plat");
    if (rc != 0) QDQ_LOG("Create CreateConnectPluginPlatThread thread failed!\n");
    QDQ_LOG("CreateConnectPluginPlatThread end!\n");
    return rc;
}
