#include "load.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace bench {

const std::string kListPlugin = "{\"RPCMethod\":\"ListPlugin\",\"ID\":\"1\"}";

namespace {

std::string frame(const std::string &payload) {
    uint32_t len = htonl(static_cast<uint32_t>(payload.size()));
    return std::string(reinterpret_cast<const char *>(&len), 4) + payload;
}

}  // namespace

Trip udp_client(unsigned port) {
    auto fd = std::make_shared<Fd>(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to = loopback(port);
    connect(fd->get(), reinterpret_cast<sockaddr *>(&to), sizeof to);
    return [fd] {
        char buf[65536];
        if (send(fd->get(), kListPlugin.data(), kListPlugin.size(), 0) < 0) return false;
        return readable(fd->get(), 1000) && recv(fd->get(), buf, sizeof buf, 0) > 0;
    };
}

Trip tcp_client(unsigned port) {
    return [port] {
        Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        timeval limit{2, 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in to = loopback(port);
        static const std::string request = frame(kListPlugin);
        uint32_t len = 0;
        if (connect(fd.get(), reinterpret_cast<sockaddr *>(&to), sizeof to) != 0 ||
            !write_all(fd.get(), request.data(), request.size()) || !read_exact(fd.get(), &len, 4))
            return false;
        std::string reply(ntohl(len), '\0');
        return read_exact(fd.get(), &reply[0], reply.size());
    };
}

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

Wake::Wake() : fd_(eventfd(0, EFD_CLOEXEC)) {}

void Wake::raise() const {
    uint64_t one = 1;
    if (write(fd_.get(), &one, sizeof one) < 0) std::abort();  // the threads would never end
}

bool Wake::wait(int fd) const {
    pollfd p[2] = {{fd, POLLIN, 0}, {fd_.get(), POLLIN, 0}};
    while (poll(p, 2, -1) < 0) {
    }
    return p[1].revents == 0;
}

UdpEcho::~UdpEcho() {
    stop_.raise();
    thread_.join();
}

void UdpEcho::run() {
    char buf[2049];
    while (stop_.wait(fd_.get())) {
        sockaddr_in from{};
        socklen_t len = sizeof from;
        if (recvfrom(fd_.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len) < 0) continue;
        sendto(fd_.get(), reply_.data(), reply_.size(), 0, reinterpret_cast<sockaddr *>(&from), len);
    }
}

TcpEcho::TcpEcho(const std::string &reply) : reply_(frame(reply)) {
    listen(fd_.get(), 128);
    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); i++)
        threads_.emplace_back([this] { run(); });
}

TcpEcho::~TcpEcho() {
    stop_.raise();
    for (auto &t : threads_) t.join();
}

void TcpEcho::run() {
    while (stop_.wait(fd_.get())) {
        Fd conn(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (conn.get() < 0) continue;  // another thread took it
        uint32_t len = 0;
        if (!read_exact(conn.get(), &len, 4)) continue;
        std::string request(ntohl(len), '\0');
        if (read_exact(conn.get(), &request[0], request.size())) write_all(conn.get(), reply_.data(), reply_.size());
    }
}

}  // namespace bench
