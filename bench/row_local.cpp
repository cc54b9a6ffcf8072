// Row 1: local command round trips. A "ListPlugin" request goes to the
// library's services on UDP 18401 and on the local TCP port (one framed
// request per connection); the baselines are bare servers written here that
// answer the same bytes over the same kind of socket, the limit of this
// machine's loopback for that exchange.
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "load.h"
#include "qdquick/qdquick.h"
#include "rows.h"

namespace bench {
namespace {

constexpr unsigned kUdpPort = 18401;
constexpr unsigned kTcpPort = 18998;
constexpr int kClients = 4;  // more than 5 would evict TCP connections by design

// Starts the library's UDP 18401 and local TCP services (they live as long
// as the process) and returns the reply to a "ListPlugin".
std::string start_services() {
    static int udp_type = QDQ_PLAT_LOCALUDP, tcp_type = QDQ_PLAT_LOCALTCP;
    quickevcb_t callbacks{};
    initQdQuick(&callbacks);
    cubeplatinfo.localsrvport = kTcpPort;
    CreatePrecessUdpReqThread(&udp_type);
    CreatePrecessTcpReqThread(&tcp_type);
    for (int i = 0; i < 100; i++) {
        Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in to = loopback(kUdpPort);
        sendto(fd.get(), kListPlugin.data(), kListPlugin.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        char buf[65536];
        ssize_t n = readable(fd.get(), 50) ? recv(fd.get(), buf, sizeof buf, 0) : -1;
        if (n > 0 && tcp_client(kTcpPort)()) return std::string(buf, static_cast<size_t>(n));
    }
    throw std::runtime_error("the local services do not answer (ports 18401/18998 taken?)");
}

// Lines the library logs per request: `trips` requests with the size limit
// off, counted by their time stamps in the general and the trace log.
double log_lines_per_request(const Trip &trip, int trips) {
    const std::string root = getenv("QDQUICK_ROOT");
    const char *logs[] = {"/var/shrcadlog.txt", "/var/shrcadlog-bak.txt"};
    const int limit = gQuickLogSize;
    gQuickLogSize = 0;
    for (const char *log : logs) truncate((root + log).c_str(), 0);
    for (int i = 0; i < trips; i++) trip();
    usleep(100 * 1000);  // a TCP worker logs its last lines after the reply
    long lines = 0;
    for (const char *log : logs) {
        std::ifstream in(root + log);
        for (std::string line; std::getline(in, line);)
            if (line.size() > 23 && line.compare(20, 3, " : ") == 0 && std::isdigit(static_cast<unsigned char>(line[7])))
                lines++;
    }
    gQuickLogSize = limit;
    return static_cast<double>(lines) / trips;
}

// `failures`: print the failed round trips even when there were none.
void add(std::vector<Figure> &out, const std::string &what, const Sample &ours, const Sample &base,
         const std::string &baseline, bool failures = false) {
    out.push_back({"1", what + " round trips", "/s", ours[0], base[0], true, baseline});
    out.push_back({"1", what + " p50 latency", "us", ours[1], base[1], false, baseline});
    out.push_back({"1", what + " p99 latency", "us", ours[2], base[2], false, baseline});
    if (failures || ours[3] > 0 || base[3] > 0) out.push_back({"1", what + " failed round trips", "", ours[3], base[3], false, baseline});
}

}  // namespace

std::vector<Figure> local_rows(const Plan &plan) {
    const std::string reply = start_services();
    UdpEcho udp_echo(reply);
    TcpEcho tcp_echo(reply);
    std::vector<Figure> out;
    for (int clients : {1, kClients}) {
        std::string who = clients == 1 ? "1 client" : std::to_string(clients) + " clients";
        auto udp = alternate(
            plan.repeats, [&] { return drive(clients, plan.window, [] { return udp_client(kUdpPort); }); },
            [&] { return drive(clients, plan.window, [&] { return udp_client(udp_echo.port()); }); });
        add(out, "ListPlugin UDP 18401, " + who + ":", udp.first, udp.second, "bare UDP echo, same reply");
        auto tcp = alternate(
            plan.repeats, [&] { return drive(clients, plan.window, [] { return tcp_client(kTcpPort); }); },
            [&] { return drive(clients, plan.window, [&] { return tcp_client(tcp_echo.port()); }); });
        add(out, "ListPlugin TCP 18998, " + who + ":", tcp.first, tcp.second,
            "bare framed-TCP echo, connection per request", clients > 1);
    }
    // Where the time goes (bench/README.md): each line is a stat of the
    // path and a writev under the log lock.
    out.push_back({"1", "log lines written per UDP request", "", log_lines_per_request(udp_client(kUdpPort), 100), 0,
                   false, "bare UDP echo logs nothing"});
    out.push_back({"1", "log lines written per TCP request", "", log_lines_per_request(tcp_client(kTcpPort), 100), 0,
                   false, "bare TCP echo logs nothing"});
    return out;
}

}  // namespace bench
