// qdquickd: the gateway's management daemon around libqdquick. Reads its
// configuration, fills the library's records, hands it the callbacks,
// starts the sessions and local services, and runs in the foreground until
// SIGTERM or SIGINT; SIGHUP reads the configuration again.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "callbacks.h"
#include "common/paths.h"
#include "config.h"
#include "distri.h"
#include "events.h"
#include "local_ports.h"
#include "lock_file.h"
#include "plugins.h"
#include "qdquick/qdplatform.h"
#include "qdquick/qdquick.h"
#include "records.h"
#include "reload.h"
#include "say.h"
#include "sessions.h"
#include "status_file.h"

namespace {

constexpr double kStopWaitSeconds = 3.0;
// The platform layer's device facts (a system path: the layer applies the root).
constexpr const char *kDeviceFile = "/etc/qdplatform/device.conf";
const char *const kPlatformNames[] = {"", "cube", "manage", "plugin"};

void usage(FILE *out) {
    std::fprintf(out,
                 "usage: qdquickd [-c FILE] [-t] [-q]\n"
                 "  -c, --config FILE  configuration file (default $QDQUICK_ROOT/etc/qdquickd.json)\n"
                 "  -t, --check        check the configuration (and that its root is writable) and exit\n"
                 "  -q, --quiet        no event lines on standard output (the log keeps them)\n"
                 "  -h, --help         this text\n"
                 "  -V, --version      the version\n");
}

// Directories the library and the daemon write into, below the root. The
// first that cannot be made ends the start: one line, not one per directory.
bool make_directories() {
    for (const char *dir : {"/var", "/var/qdquickd", "/qdconf", "/etc", "/etc/config", "/etc/config/system",
                            "/etc/qdplatform"}) {
        const std::string path = qdq::path(dir);
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
            std::fprintf(stderr, "qdquickd: cannot create %s: %s\n", path.c_str(), std::strerror(errno));
            return false;
        }
    }
    return true;
}

std::string joined(const std::vector<std::string> &items) {
    std::string out;
    for (const std::string &i : items) out += (out.empty() ? "" : ", ") + i;
    return out;
}

// SIGHUP: the file read again; a bad one is refused and the running
// configuration kept.
void reload(qdd::Config &config) {
    qdd::Config fresh;
    std::string error;
    if (!qdd::load_config(config.path, fresh, error)) {
        qdd::warn("SIGHUP: configuration kept, the file is bad: %s", error.c_str());
        qdd::status_reload({}, {}, error);
        return;
    }
    const qdd::ReloadPlan plan = qdd::plan_reload(config, fresh);
    qdd::sessions_configure(config);
    gQuickLogSize = config.log_size_kib;
    qdd::plugins_configure(config.run_after_install);
    cubeplatinfo.localability = config.refuse_tcp_clients ? 1 : 0;
    if (plan.applied.empty() && plan.restart.empty()) qdd::say("SIGHUP: configuration read again, nothing changed");
    if (!plan.applied.empty()) qdd::say("SIGHUP: applied %s", joined(plan.applied).c_str());
    if (!plan.restart.empty()) qdd::warn("SIGHUP: needs a restart to take effect: %s", joined(plan.restart).c_str());
    qdd::status_reload(plan.applied, plan.restart, "");
}

bool g_heartbeat_told[4];

void handle(const qdd::Config &config, const qdd::Event &e) {
    switch (e.kind) {
    case qdd::Event::kStatus: {
        if (e.plattype < 1 || e.plattype > 3) return;
        const char *name = kPlatformNames[e.plattype];
        qdd::status_platform(e.plattype, e.text, e.value);
        // Heartbeats repeat for ever: tell the first of each session only;
        // the steps of a connect go to the log.
        if (e.text == "wait_heatbeat" && !g_heartbeat_told[e.plattype]) {
            g_heartbeat_told[e.plattype] = true;
            qdd::say("%s platform: heartbeat answered (every %u s)", name, getPlatInfo(e.plattype)->interval);
        } else if (e.text == "heartbeating" || e.text == "wait_heatbeat" || e.text == "connecting" ||
                   e.text == "registering") {
            qdd::note("%s platform: %s", name, e.text.c_str());
        } else {
            if (e.text == "connected" || e.text == "disconnect") g_heartbeat_told[e.plattype] = false;
            qdd::say("%s platform: %s (%d)", name, e.text.c_str(), e.value);
        }
        qdd::sessions_on_status(e.plattype, e.text, e.value);
        break;
    }
    case qdd::Event::kTimer:
        qdd::sessions_on_cube_timer();
        break;
    case qdd::Event::kDistri: {
        const unsigned port = static_cast<unsigned>(e.value);
        if (!qdd::acceptable_address(e.text) || port == 0 || port > 65535) {
            qdd::say("%s platform moved to an unusable address; not recorded", kPlatformNames[e.plattype]);
            return;
        }
        qdd::sessions_remember_address(e.plattype, e.text, port);
        const bool saved = qdd::record_platform_address(config.path, e.plattype, e.text, port);
        qdd::say("%s platform moved to %s:%u%s", kPlatformNames[e.plattype], e.text.c_str(), port,
                 saved ? " (configuration updated)" : " (configuration NOT updated)");
        break;
    }
    }
}

int g_signal_pipe[2] = {-1, -1};

void on_stop_signal(int signo) {
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(signo);
    ssize_t ignored = write(g_signal_pipe[1], &byte, 1);  // full pipe: a stop is pending anyway
    (void)ignored;
    errno = saved;
}

int signal_pipe() {
    if (pipe2(g_signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (sigaction(SIGTERM, &sa, nullptr) != 0 || sigaction(SIGINT, &sa, nullptr) != 0 ||
        sigaction(SIGHUP, &sa, nullptr) != 0)
        return -1;
    // Socket writes to a closed peer must fail, not end the daemon.
    signal(SIGPIPE, SIG_IGN);
    return g_signal_pipe[0];
}

const char *signal_name(int signo) {
    return signo == SIGTERM ? "SIGTERM" : signo == SIGINT ? "SIGINT" : "poll failure";
}

// Waits for SIGTERM or SIGINT, handling queued events and SIGHUP meanwhile.
int run_until_signal(qdd::Config &config, int signal_fd) {
    for (;;) {
        pollfd fds[2] = {{signal_fd, POLLIN, 0}, {qdd::events_fd(), POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (fds[1].revents & POLLIN) {
            for (const qdd::Event &e : qdd::take_events()) handle(config, e);
        }
        if (fds[0].revents & POLLIN) {
            unsigned char signo = 0;
            if (read(signal_fd, &signo, 1) != 1) continue;
            if (signo != SIGHUP) return signo;
            reload(config);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    std::string config_path;
    bool check_only = false, quiet = false;
    const option longopts[] = {{"config", required_argument, nullptr, 'c'}, {"check", no_argument, nullptr, 't'},
                               {"quiet", no_argument, nullptr, 'q'},        {"help", no_argument, nullptr, 'h'},
                               {"version", no_argument, nullptr, 'V'},      {nullptr, 0, nullptr, 0}};
    for (int opt; (opt = getopt_long(argc, argv, "c:tqhV", longopts, nullptr)) != -1;) {
        switch (opt) {
        case 'c': config_path = optarg; break;
        case 't': check_only = true; break;
        case 'q': quiet = true; break;
        case 'h': usage(stdout); return 0;
        case 'V': std::printf("qdquickd %s\n", QDQUICKD_VERSION); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (optind != argc) {
        usage(stderr);
        return 2;
    }
    if (config_path.empty()) config_path = qdd::default_config_path();

    qdd::Config config;
    std::string error;
    if (!qdd::load_config(config_path, config, error)) {
        std::fprintf(stderr, "qdquickd: bad configuration: %s\n", error.c_str());
        return 2;
    }
    if (!qdd::check_root(config, error)) {
        // A check says what is wrong with the file; a start cannot set up.
        if (check_only) {
            std::fprintf(stderr, "qdquickd: bad configuration: %s: %s\n", config.path.c_str(), error.c_str());
            return 2;
        }
        std::fprintf(stderr, "qdquickd: %s\n", error.c_str());
        return 1;
    }
    if (check_only) {
        std::printf("qdquickd: %s is good\n", config.path.c_str());
        return 0;
    }
    // The library reads these once, at its first use: set them before.
    if (!config.root.empty()) setenv("QDQUICK_ROOT", config.root.c_str(), 1);
    setenv("QDQUICK_DEFAULT_CUBE", config.cube.address.c_str(), 1);
    setenv("QDQUICK_DEFAULT_MANAGE", config.manage.address.c_str(), 1);
    qdd::set_quiet(quiet);
    if (!make_directories()) return 1;
    // Before anything is bound or written: a second daemon on this root
    // would find the ports taken and overwrite the first one's status file.
    if (!qdd::take_lock(error)) {
        std::fprintf(stderr, "qdquickd: %s\n", error.c_str());
        return 1;
    }

    // SIGTERM and SIGINT only write their number into a pipe that the main
    // loop watches. Handlers rather than a blocked mask: a blocked mask would
    // be inherited by every program the library starts (plugins included),
    // which then could not be stopped with SIGTERM.
    const int signal_fd = signal_pipe();
    if (signal_fd < 0 || !qdd::events_init()) {
        std::fprintf(stderr, "qdquickd: cannot set up signal and event descriptors: %s\n", std::strerror(errno));
        return 1;
    }

    // The platform layer answers GetLoidInfo from its device file; on a
    // plain Linux host the configuration is where the LOID is known.
    if (setcfgx(kDeviceFile, "loid", config.loid.c_str()) != 0)
        std::fprintf(stderr, "qdquickd: cannot store the LOID in %s\n", kDeviceFile);

    const quickevcb_t callbacks = qdd::host_callbacks();
    initQdQuick(&callbacks);
    qdd::plugin_hooks_register();
    qdd::fill_device(config);
    qdd::plugins_configure(config.run_after_install);

    // The local services bind on the library's threads, which tell nobody
    // when that fails: their ports are tried first, and each one taken is
    // named once, on standard error, in the log and in the status file.
    const std::vector<qdd::PortProblem> problems = qdd::probe_local_ports(config);
    for (const qdd::PortProblem &p : problems)
        qdd::warn("cannot start the %s%s", p.text().c_str(), config.missing_service_fatal ? "" : " (left out)");
    if (!problems.empty() && config.missing_service_fatal) {
        qdd::status_failed(QDQUICKD_VERSION, problems);
        qdd::warn("exiting: a configured local service cannot start (services.on_failure is \"fatal\")");
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(1);
    }
    qdd::Config started = config;
    qdd::leave_out(started, problems);
    qdd::sessions_configure(started);
    qdd::status_start(QDQUICKD_VERSION, problems);
    qdd::plugins_restore();
    qdd::say("started%s: serial %s, MAC %s, root %s, configuration %s", problems.empty() ? "" : " (degraded)",
             config.serial.c_str(), getSdkDevInfo()->mac, qdq::root().empty() ? "/" : qdq::root().c_str(),
             config.path.c_str());
    qdd::sessions_start();

    const int signo = run_until_signal(config, signal_fd);
    qdd::say("%s received: disconnecting the platforms", signal_name(signo));
    const bool all_ended = qdd::sessions_stop(kStopWaitSeconds);
    if (!all_ended) qdd::note("some connect threads were still busy; leaving them");
    // The disconnects' own status changes are queued behind the loop that
    // just ended: without them the file would go on showing heartbeats.
    for (const qdd::Event &e : qdd::take_events()) handle(config, e);
    qdd::plugins_stop_all();
    qdd::status_stopped();
    qdd::say("stopped");
    // Not fflush(nullptr): it locks every stream, and an install thread
    // blocked reading its download's pipe holds that stream's lock.
    std::fflush(stdout);
    std::fflush(stderr);
    // Library threads (timers, services) run until the process ends; static
    // destructors must not run under them.
    _exit(signo > 0 ? 0 : 1);
}
