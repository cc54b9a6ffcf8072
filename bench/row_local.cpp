// Row 1: local command round trips. A "ListPlugin" request goes to the
// library's services on UDP 18401 and on the local TCP port (one framed
// request per connection); the baselines are bare servers written here that
// answer the same bytes over the same kind of socket, the limit of this
// machine's loopback for that exchange.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "env.h"
#include "qdquick/qdquick.h"
#include "rows.h"

namespace bench {
namespace {

constexpr unsigned kUdpPort = 18401;
constexpr unsigned kTcpPort = 18998;
constexpr int kClients = 4;  // more than 5 would evict TCP connections
const std::string kRequest = "{\"RPCMethod\":\"ListPlugin\",\"ID\":\"1\"}";

std::string frame(const std::string &payload) {
    uint32_t len = htonl(static_cast<uint32_t>(payload.size()));
    return std::string(reinterpret_cast<const char *>(&len), 4) + payload;
}

using Trip = std::function<bool()>;

// A connected UDP client: one datagram out, one back.
Trip udp_client(unsigned port) {
    auto fd = std::make_shared<Fd>(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to = loopback(port);
    connect(fd->get(), reinterpret_cast<sockaddr *>(&to), sizeof to);
    return [fd] {
        char buf[65536];
        if (send(fd->get(), kRequest.data(), kRequest.size(), 0) < 0) return false;
        return readable(fd->get(), 1000) && recv(fd->get(), buf, sizeof buf, 0) > 0;
    };
}

// Connect, one frame out, one frame back, close.
Trip tcp_client(unsigned port) {
    return [port] {
        Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        timeval limit{2, 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in to = loopback(port);
        static const std::string request = frame(kRequest);
        uint32_t len = 0;
        if (connect(fd.get(), reinterpret_cast<sockaddr *>(&to), sizeof to) != 0 ||
            !write_all(fd.get(), request.data(), request.size()) || !read_exact(fd.get(), &len, 4))
            return false;
        std::string reply(ntohl(len), '\0');
        return read_exact(fd.get(), &reply[0], reply.size());
    };
}

// `clients` threads doing round trips back to back for `seconds`:
// round trips per second, p50 and p99 latency in microseconds, lost ones.
Sample drive(int clients, double seconds, const std::function<Trip()> &make) {
    std::vector<std::vector<double>> latency(clients);
    std::atomic<long> lost{0};
    std::vector<std::thread> threads;
    const auto t0 = Clock::now();
    for (int c = 0; c < clients; c++) {
        threads.emplace_back([&, c] {
            Trip trip = make();
            while (seconds_since(t0) < seconds) {
                const auto start = Clock::now();
                if (trip())
                    latency[c].push_back(seconds_since(start) * 1e6);
                else
                    lost++;
            }
        });
    }
    for (auto &t : threads) t.join();
    const double elapsed = seconds_since(t0);
    std::vector<double> all;
    for (auto &l : latency) all.insert(all.end(), l.begin(), l.end());
    const double done = static_cast<double>(all.size());
    return {done / elapsed, percentile(all, 50), percentile(all, 99), static_cast<double>(lost)};
}

// Bare UDP server: one thread, answers every datagram with `reply`.
class UdpEcho {
public:
    explicit UdpEcho(std::string reply) : reply_(std::move(reply)) {}
    ~UdpEcho() {
        stop_ = true;
        thread_.join();
    }
    unsigned port() const { return port_of(fd_.get()); }

private:
    void run() {
        char buf[2049];
        while (!stop_) {
            if (!readable(fd_.get(), 50)) continue;
            sockaddr_in from{};
            socklen_t len = sizeof from;
            if (recvfrom(fd_.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len) < 0) continue;
            sendto(fd_.get(), reply_.data(), reply_.size(), 0, reinterpret_cast<sockaddr *>(&from), len);
        }
    }
    Fd fd_ = bound(SOCK_DGRAM);
    std::string reply_;
    std::atomic<bool> stop_{false};
    std::thread thread_{[this] { run(); }};
};

// Bare framed-TCP server: one accepting thread per core, each reads one
// frame per connection, answers `reply` as one frame and closes.
class TcpEcho {
public:
    explicit TcpEcho(const std::string &reply) : reply_(frame(reply)) {
        listen(fd_.get(), 128);
        for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); i++)
            threads_.emplace_back([this] { run(); });
    }
    ~TcpEcho() {
        stop_ = true;
        for (auto &t : threads_) t.join();
    }
    unsigned port() const { return port_of(fd_.get()); }

private:
    void run() {
        while (!stop_) {
            if (!readable(fd_.get(), 50)) continue;
            Fd conn(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (conn.get() < 0) continue;  // another thread took it
            uint32_t len = 0;
            if (!read_exact(conn.get(), &len, 4)) continue;
            std::string request(ntohl(len), '\0');
            if (read_exact(conn.get(), &request[0], request.size()))
                write_all(conn.get(), reply_.data(), reply_.size());
        }
    }
    Fd fd_ = bound(SOCK_STREAM | SOCK_NONBLOCK);
    std::string reply_;
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

// Starts the library's UDP 18401 and local TCP services (once per
// process: they live as long as it does) and returns the UDP reply.
std::string start_services() {
    static int udp_type = QDQ_PLAT_LOCALUDP, tcp_type = QDQ_PLAT_LOCALTCP;
    cubeplatinfo.localsrvport = kTcpPort;
    CreatePrecessUdpReqThread(&udp_type);
    CreatePrecessTcpReqThread(&tcp_type);
    for (int i = 0; i < 100; i++) {
        Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in to = loopback(kUdpPort);
        sendto(fd.get(), kRequest.data(), kRequest.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
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
    const int limit = gQuickLogSize;
    gQuickLogSize = 0;
    for (const char *log : {"/var/shrcadlog.txt", "/var/shrcadlog-bak.txt"}) truncate((root + log).c_str(), 0);
    for (int i = 0; i < trips; i++) trip();
    usleep(100 * 1000);  // the TCP worker logs its last lines after the reply
    long lines = 0;
    for (const char *log : {"/var/shrcadlog.txt", "/var/shrcadlog-bak.txt"}) {
        std::ifstream in(root + log);
        for (std::string line; std::getline(in, line);)
            if (line.size() > 23 && line.compare(20, 3, " : ") == 0 && std::isdigit(static_cast<unsigned char>(line[7])))
                lines++;
    }
    gQuickLogSize = limit;
    return static_cast<double>(lines) / trips;
}

void add(std::vector<Figure> &out, const std::string &row, const std::string &what, const Sample &ours,
         const Sample &base, const std::string &baseline) {
    out.push_back({row, what + " round trips", "/s", ours[0], base[0], true, baseline});
    out.push_back({row, what + " p50 latency", "us", ours[1], base[1], false, baseline});
    out.push_back({row, what + " p99 latency", "us", ours[2], base[2], false, baseline});
    if (ours[3] > 0 || base[3] > 0)
        out.push_back({row, what + " lost replies", "", ours[3], base[3], false, baseline});
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
        add(out, "1", "ListPlugin UDP 18401, " + who + ":", udp.first, udp.second, "bare UDP echo, same reply");
        auto tcp = alternate(
            plan.repeats, [&] { return drive(clients, plan.window, [] { return tcp_client(kTcpPort); }); },
            [&] { return drive(clients, plan.window, [&] { return tcp_client(tcp_echo.port()); }); });
        add(out, "1", "ListPlugin TCP 18998, " + who + ":", tcp.first, tcp.second,
            "bare framed-TCP echo, connection per request");
    }
    // Where the time goes (see bench/README.md): every line is an open,
    // append and close of a log file under the log lock.
    out.push_back({"1", "log lines written per UDP request", "", log_lines_per_request(udp_client(kUdpPort), 100), 0,
                   false, "bare UDP echo logs nothing"});
    out.push_back({"1", "log lines written per TCP request", "", log_lines_per_request(tcp_client(kTcpPort), 100), 0,
                   false, "bare TCP echo logs nothing"});
    return out;
}

}  // namespace bench
