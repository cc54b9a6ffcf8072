#include "local_ports.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "common/socket.h"

namespace qdd {

namespace {

struct Service {
    const char *name;
    const char *label;
    int type;     // SOCK_DGRAM or SOCK_STREAM
    bool reuse;   // the library sets SO_REUSEADDR on this one
};

// As the library opens them: the quick-install port without address reuse
// (a second instance must fail), the others with it; all on the wildcard.
const Service kQuick{"quick_install", "quick-install service", SOCK_DGRAM, false};
const Service kUdp{"local_udp", "local UDP service", SOCK_DGRAM, true};
const Service kTcp{"local_tcp", "local TCP service", SOCK_STREAM, true};

// 0 when the port can be bound, else the errno.
int probe(const Service &s, unsigned port) {
    qdq::Fd fd(socket(AF_INET, s.type | SOCK_CLOEXEC, 0));
    if (!fd) return errno;
    if (s.reuse && qdq::set_reuseaddr(fd.get()) != 0) return errno;
    sockaddr_in addr;
    qdq::ipv4_address(nullptr, port, addr);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) return errno;
    // A TCP port bound by another socket with SO_REUSEADDR only fails here.
    if (s.type == SOCK_STREAM && listen(fd.get(), 1) != 0) return errno;
    return 0;
}

}  // namespace

std::string PortProblem::text() const {
    const Service &s = service == kQuick.name ? kQuick : service == kUdp.name ? kUdp : kTcp;
    return std::string(s.label) + ", " + (protocol == "tcp" ? "TCP" : "UDP") + " port " + std::to_string(port) +
           ": " + reason;
}

std::vector<PortProblem> probe_local_ports(const Config &c) {
    const struct {
        const Service &service;
        bool enabled;
        unsigned port;
    } wanted[] = {{kQuick, c.quick_install, 7998}, {kUdp, c.local_udp, 18401}, {kTcp, c.local_tcp, c.local_tcp_port}};
    std::vector<PortProblem> problems;
    for (const auto &w : wanted) {
        if (!w.enabled) continue;
        if (const int err = probe(w.service, w.port))
            problems.push_back({w.service.name, w.service.type == SOCK_STREAM ? "tcp" : "udp", w.port,
                                std::strerror(err)});
    }
    return problems;
}

void leave_out(Config &c, const std::vector<PortProblem> &problems) {
    for (const PortProblem &p : problems) {
        if (p.service == kQuick.name) c.quick_install = false;
        if (p.service == kUdp.name) c.local_udp = false;
        if (p.service == kTcp.name) c.local_tcp = false;
    }
}

}  // namespace qdd
