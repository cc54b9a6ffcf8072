// Connecting a platform: Boot, Register, the first heartbeat and, over TCP,
// the persistent channel. One procedure; each platform's defaults, fallback
// and session are a row of its own.
#include <cstdio>
#include <cstring>

#include "common/abi_guard.h"
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

// How a platform's Boot goes over the wire.
enum class Transport {
    Tcp,             // TCP from the start; any negative result ends the connect
    UdpThenTcp,      // a negative Boot result over UDP: Boot again over TCP
    UdpThenTcpUnlessAnswered,  // the same, but not after Boot-again or redirect
};

// What differs between the platforms' connects; the procedure is one.
struct PlatformConnect {
    int plattype;
    platinfo *rec;
    const char *entry;  // the exported entry, in log lines
    // Manage and cube: the newest connect thread wins (platregtid), and the
    // local port is drawn once the record is claimed. The plugin platform
    // draws it first and relies on the claim alone.
    bool newest_wins;
    unsigned port_base;  // local UDP ports port_base .. port_base + 98
    const char *busy_line;  // another connect holds the record
    int busy_result;
    const char *(*default_address)();  // for an empty or 0.0.0.0 address; null: none
    unsigned default_port;
    Transport transport;
    bool session_on_answer;  // a Register result of 0 is the session (else one of 1 or more)
    // Manage and cube report the connect's end in the status word
    // ("connected" or "connect_failed"); the plugin's Register does that.
    bool reports_end;
    void (*log_port)(const platinfo &rec);
    void (*before_boot)(platinfo &rec);
    void (*once_answered)();  // after a Boot that the platform answered; may be null
    void (*on_session)(platinfo &rec, qdq::RecordClaim &claim);
    void (*log_end)(const platinfo &rec, int ret);
};

int connect_failed(platinfo &rec, qdq::RecordClaim &claim, const PlatformConnect &p, int line, int ret) {
    release_session_socket(rec, ret);
    claim.release();
    HgSetPlateStatus(p.plattype, "connect_failed", ret);
    QDQ_LOG("%s %d connect_failed return", p.entry, line);
    return ret;
}

bool ends_connect(const PlatformConnect &p, int ret) {
    return is_session_failure(ret) || (p.transport == Transport::Tcp && ret < 0);
}

bool goes_over_tcp(const PlatformConnect &p, int ret) {
    switch (p.transport) {
    case Transport::Tcp: return false;
    case Transport::UdpThenTcp: return ret < 0;
    case Transport::UdpThenTcpUnlessAnswered: return ret < 0 && ret != kResultBootAgain && ret != kResultRedirect;
    }
    return false;
}

void manage_session(platinfo &rec, qdq::RecordClaim &) {
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
        HgProcessPlatTcpConnect(QDQ_PLAT_MANAGE);
    }
}

void cube_session(platinfo &rec, qdq::RecordClaim &) {
    deviceinfo.cuberegistered = 1;
    if (rec.tcpflag != 0) AppTimerCreate(1800, qdq::kTimerConnectCube, 0, QdTimeoutHandle);
    qdq::close_session_socket(&rec);  // the cube keeps no connection
}

void plugin_session(platinfo &rec, qdq::RecordClaim &claim) {
    // The channel loop below runs for the whole session: the record is
    // given back before it.
    claim.release();
    default_heartbeat_address(rec);
    rec.interval = 20;  // the plugin platform's own interval is not used
    AppTimerCreate(20, qdq::kTimerPluginHeartbeat, 0, QdTimeoutHandle);
    HgProcessPlatTcpConnect(QDQ_PLAT_PLUGIN);
}

const PlatformConnect kManage{
    QDQ_PLAT_MANAGE, &manageplatinfo, "HGConnectManagePlat", /*newest_wins=*/true, /*port_base=*/17100,
    /*busy_line=*/"anotherr reging mang plat in progress,return", /*busy_result=*/kSessionSuperseded,
    qdq::default_manage_address, /*default_port=*/60001, Transport::UdpThenTcpUnlessAnswered,
    /*session_on_answer=*/false, /*reports_end=*/true,
    [](const platinfo &rec) {
        AppMgrLogLine(qdq::kLogTrace, "HGConnectManagePlat: localport:%d\tregflag:%d",
                      static_cast<int>(rec.localport), rec.regflag);
    },
    [](platinfo &rec) {
        disconnect_and_clear(pluginplatinfo);
        // A connection still held by the record is closed, never just
        // overwritten (an overwritten number would leak). The manage port's
        // local UDP service publishes its socket there too: that one is only
        // taken out, and a service the host started keeps answering.
        qdq::close_session_socket(&rec, true);
    },
    /*once_answered=*/nullptr, manage_session,
    [](const platinfo &rec, int ret) { QDQ_LOG("HGConnectManagePlat return %d regflag:%d", ret, rec.regflag); },
};

const PlatformConnect kCube{
    QDQ_PLAT_CUBE, &cubeplatinfo, "HGConnectCubePlat", /*newest_wins=*/true, /*port_base=*/17100,
    /*busy_line=*/"anotherr reging cube plat in progress,return", /*busy_result=*/kSessionSuperseded,
    qdq::default_cube_address, /*default_port=*/12112, Transport::UdpThenTcp,
    /*session_on_answer=*/false, /*reports_end=*/true,
    [](const platinfo &rec) { QDQ_LOG("HGConnectCubePlat() ! localport:%d", static_cast<int>(rec.localport)); },
    [](platinfo &rec) { qdq::close_session_socket(&rec, true); },
    // The cube connect wipes the manage platform's record, address and port
    // included: the cube registration decides where it is. It does so only
    // once the cube platform has answered its Boot: a silent or refusing
    // cube platform, retried by the host, would otherwise tear a working
    // manage session down on every retry.
    [] { disconnect_and_clear(manageplatinfo); },
    cube_session,
    [](const platinfo &, int ret) { QDQ_LOG("HGConnectCubePlat() ! return %d", ret); },
};

const PlatformConnect kPlugin{
    QDQ_PLAT_PLUGIN, &pluginplatinfo, "HGConnectPluginPlat", /*newest_wins=*/false, /*port_base=*/17200,
    /*busy_line=*/"device is in registing, return!\n", /*busy_result=*/0,
    /*default_address=*/nullptr, /*default_port=*/0, Transport::Tcp,
    /*session_on_answer=*/true, /*reports_end=*/false,
    [](const platinfo &rec) {
        QDQ_LOG("\n######HGConnectPluginPlat() ! localport:%d\tregflag:%d", static_cast<int>(rec.localport),
                rec.regflag);
    },
    [](platinfo &rec) {
        if (rec.regflag != 0) HGDisconnectPlat(QDQ_PLAT_PLUGIN);
        qdq::close_session_socket(&rec, true);
        rec.spareflag = 0;
    },
    /*once_answered=*/nullptr, plugin_session,
    [](const platinfo &rec, int ret) {
        QDQ_LOG("HGConnectPluginPlat() end! return %d regflag:%d\n", ret, rec.regflag);
    },
};

// Claim the record, Boot (again over TCP where the platform's rule says),
// Register, then the session or its failure.
int connect_platform(const PlatformConnect &p, const platinfo *request) {
    platinfo &rec = *p.rec;
    if (p.newest_wins) {
        QDQ_LOG("%s start", p.entry);
    } else {
        rec.localport = local_port(request, p.port_base);
        p.log_port(rec);
    }
    qdq::RecordClaim claim(rec);
    if (!claim.held()) {
        QDQ_LOG("%s", p.busy_line);
        return p.busy_result;
    }
    if (p.newest_wins) {
        platregtid = pthread_self();  // older connect threads give up at their next guard
        rec.localport = local_port(request, p.port_base);
        p.log_port(rec);
    }
    p.before_boot(rec);
    rec.tcpflag = p.transport == Transport::Tcp ? 1 : 0;
    if (p.default_address != nullptr) use_default_address(rec, p.default_address(), p.default_port);

    int ret = HgProcessBoot(p.plattype);
    if (ends_connect(p, ret)) return connect_failed(rec, claim, p, __LINE__, ret);
    if (goes_over_tcp(p, ret)) {
        rec.tcpflag = 1;
        ret = HgProcessBoot(p.plattype);
        if (ends_connect(p, ret)) return connect_failed(rec, claim, p, __LINE__, ret);
    }
    if (ret >= 0 && p.once_answered != nullptr) p.once_answered();
    if (ret == kResultAnswered) {
        ret = HgProcessRegister(p.plattype, &claim);
        if (ends_connect(p, ret)) return connect_failed(rec, claim, p, __LINE__, ret);
    }
    if (p.session_on_answer ? ret == kResultAnswered : ret >= 1) {
        if (p.reports_end) HgSetPlateStatus(p.plattype, "connected", ret);
        p.on_session(rec, claim);
    } else {
        // Manage and cube: a Register result of 0 leaves the platform
        // registered but the connect failed, with no heartbeat. Plugin: a
        // positive Boot or Register result ends without a session.
        release_session_socket(rec, ret);
        if (p.reports_end) HgSetPlateStatus(p.plattype, "connect_failed", ret);
    }
    claim.release();
    p.log_end(rec, ret);
    return ret;
}

}  // namespace

extern "C" QDQ_API int HGConnectManagePlat(platinfo *record) {
    return qdq::guard_entry("HGConnectManagePlat", -1, [&] { return connect_platform(kManage, record); });
}

extern "C" QDQ_API int HGConnectCubePlat(platinfo *record) {
    return qdq::guard_entry("HGConnectCubePlat", -1, [&] { return connect_platform(kCube, record); });
}

extern "C" QDQ_API int HGConnectPluginPlat(void) {
    return qdq::guard_entry("HGConnectPluginPlat", -1, [] { return connect_platform(kPlugin, nullptr); });
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
