// Row 5: the daemon's footprint. qdquickd runs with every service against
// the whole-gateway simulator; its memory, threads and descriptors are taken
// at rest (sessions registered, local ports open), its CPU time over an idle
// window, and the peaks while row 1's load (four UDP and four TCP clients)
// runs against its local ports. The baseline is a bare process of this
// program that maps the same libraries and serves the same load with the
// bare echo servers of row 1.
#include <cjson/cJSON.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "load.h"
#include "proc.h"
#include "rows.h"

namespace bench {
namespace {

// The status of `platform` in the daemon's status file, "" when unknown.
std::string daemon_status(const std::string &root, const char *platform) {
    std::ifstream in(root + "/var/qdquickd/status.json");
    std::stringstream text;
    text << in.rdbuf();
    cJSON *doc = cJSON_Parse(text.str().c_str());
    const char *s = cJSON_GetStringValue(
        cJSON_GetObjectItem(cJSON_GetObjectItem(cJSON_GetObjectItem(doc, "platforms"), platform), "status"));
    std::string status = s ? s : "";
    cJSON_Delete(doc);
    return status;
}

bool registered(const std::string &status) {
    return status == "connected" || status == "heartbeating" || status == "wait_heatbeat";
}

// Row 1's load (4 UDP and 4 TCP clients) for `seconds` against the two
// ports, while the usage of `pid` is sampled: the peak of each figure.
Usage peak_under_load(pid_t pid, unsigned udp, unsigned tcp, double seconds) {
    std::atomic<bool> done{false};
    Usage peak;
    std::thread sampler([&] {
        while (!done) {
            Usage u = usage_of(pid);
            peak.rss_kib = std::max(peak.rss_kib, u.rss_kib);
            peak.vm_kib = std::max(peak.vm_kib, u.vm_kib);
            peak.threads = std::max(peak.threads, u.threads);
            peak.fds = std::max(peak.fds, u.fds);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    std::thread tcp_load([&] { drive(4, seconds, [&] { return tcp_client(tcp); }); });
    drive(4, seconds, [&] { return udp_client(udp); });
    tcp_load.join();
    done = true;
    sampler.join();
    return peak;
}

void add(std::vector<Figure> &out, const std::string &when, const Usage &ours, const Usage &base) {
    const std::string floor = "bare process, same libraries, bare echo servers";
    out.push_back({"5", "qdquickd " + when + ": resident memory", "MiB", ours.rss_kib / 1024, base.rss_kib / 1024,
                   false, floor});
    out.push_back({"5", "qdquickd " + when + ": virtual memory", "MiB", ours.vm_kib / 1024, base.vm_kib / 1024,
                   false, floor});
    out.push_back({"5", "qdquickd " + when + ": threads", "", ours.threads, base.threads, false, floor});
    out.push_back({"5", "qdquickd " + when + ": descriptors", "", ours.fds, base.fds, false, floor});
}

}  // namespace

int run_floor_process() {
    const std::string reply = "{\n\t\"ID\":\t\"1\",\n\t\"Plugin\":\t[],\n\t\"Result\":\t0\n}";
    UdpEcho udp(reply);
    TcpEcho tcp(reply);
    std::printf("%u %u\n", udp.port(), tcp.port());
    std::fflush(stdout);
    // The least an agent with a one-second timer tick does when idle.
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}

std::vector<Figure> footprint_rows(const Plan &plan, const std::string &daemon, const std::string &sim_path) {
    if (daemon.empty() || access(daemon.c_str(), X_OK) != 0) throw std::runtime_error("no daemon: " + daemon);
    const std::string root = getenv("QDQUICK_ROOT");
    std::ofstream(root + "/etc/qdquickd.json") << "{\"root\": \"" << root << "\"}\n";  // defaults otherwise
    Child sim({sim_path, "--gateway", "--no-install", "-q"});
    for (std::string line; line.rfind("qdquick-sim ready", 0) != 0;) {
        line = sim.read_line(10000);
        if (line.empty()) throw std::runtime_error("simulator not ready");
    }
    Child gateway({daemon, "-q", "-c", root + "/etc/qdquickd.json"}, false);

    // At rest: every platform registered, the local ports answering.
    const auto t0 = Clock::now();
    while (!(registered(daemon_status(root, "manage")) && registered(daemon_status(root, "plugin")) &&
             udp_client(18401)() && tcp_client(18998)())) {
        if (seconds_since(t0) > 60) throw std::runtime_error("the daemon did not register with every platform");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    char self[4096] = "";
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) throw std::runtime_error("no /proc/self/exe");
    Child floor({self, "--floor"});
    unsigned floor_udp = 0, floor_tcp = 0;
    if (std::sscanf(floor.read_line(5000).c_str(), "%u %u", &floor_udp, &floor_tcp) != 2)
        throw std::runtime_error("the floor process did not start");
    std::this_thread::sleep_for(std::chrono::duration<double>(plan.quick ? 0.3 : 2));  // settle

    // Both idle side by side: one window for both.
    const Usage rest = usage_of(gateway.pid()), floor_rest = usage_of(floor.pid());
    std::this_thread::sleep_for(std::chrono::duration<double>(plan.idle));
    // Scheduler counters of the live threads: the 10 ms ticks of stat would
    // round an idle process to 0. The few timer expiries that end inside the
    // window (microseconds each) go uncounted.
    const double idle_cpu = usage_of(gateway.pid()).live_cpu_seconds - rest.live_cpu_seconds;
    const double floor_cpu = usage_of(floor.pid()).live_cpu_seconds - floor_rest.live_cpu_seconds;

    const double load_seconds = plan.quick ? 0.3 : 5;
    const Usage peak = peak_under_load(gateway.pid(), 18401, 18998, load_seconds);
    const Usage floor_peak = peak_under_load(floor.pid(), floor_udp, floor_tcp, load_seconds);

    std::vector<Figure> out;
    add(out, "at rest", rest, floor_rest);
    char idle[64];
    std::snprintf(idle, sizeof idle, "qdquickd at rest: CPU time in %.0f idle s", plan.idle);
    out.push_back({"5", idle, "ms", idle_cpu * 1000, floor_cpu * 1000, false,
                   "bare process waking once a second, same window"});
    add(out, "peak under row 1's load", peak, floor_peak);
    return out;
}

}  // namespace bench
