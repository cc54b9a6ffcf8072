// Loopback load: "ListPlugin" clients for the local UDP and framed-TCP
// ports, the bare servers that are their baselines, and a driver that runs
// clients back to back and takes their latencies.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "env.h"
#include "measure.h"

namespace bench {

extern const std::string kListPlugin;  // the request every client sends

// One round trip; false when no reply came.
using Trip = std::function<bool()>;
Trip udp_client(unsigned port);  // a connected UDP socket, one datagram each way
Trip tcp_client(unsigned port);  // connect, one frame each way, close

// `clients` threads, each making a client with `make` and running it back to
// back for `seconds`: {round trips per second, p50 us, p99 us, lost}.
Sample drive(int clients, double seconds, const std::function<Trip()> &make);

// Stop signal of a server's threads: readable once raised, so a thread
// sleeps in poll() without a time-out (an idle server costs no CPU time).
class Wake {
public:
    Wake();
    void raise() const;
    // Waits until `fd` is readable (true) or the signal is raised (false).
    bool wait(int fd) const;

private:
    Fd fd_;
};

// Bare UDP server: one thread, answers every datagram with `reply`.
class UdpEcho {
public:
    explicit UdpEcho(std::string reply) : reply_(std::move(reply)) {}
    ~UdpEcho();
    unsigned port() const { return port_of(fd_.get()); }

private:
    void run();
    Fd fd_ = bound(SOCK_DGRAM);
    std::string reply_;
    Wake stop_;
    std::thread thread_{[this] { run(); }};
};

// Bare framed-TCP server: one accepting thread per core; each reads one
// frame per connection, answers `reply` as one frame and closes.
class TcpEcho {
public:
    explicit TcpEcho(const std::string &reply);
    ~TcpEcho();
    unsigned port() const { return port_of(fd_.get()); }

private:
    void run();
    Fd fd_ = bound(SOCK_STREAM | SOCK_NONBLOCK);
    std::string reply_;
    Wake stop_;
    std::vector<std::thread> threads_;
};

}  // namespace bench
