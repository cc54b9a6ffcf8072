#include "env.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace bench {

std::string make_root() {
    const char *base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string tmpl = std::string(base) + "/qdquick-bench-XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    for (const char *d : {"/var", "/qdconf", "/etc/config/system", "/tmp"})
        std::filesystem::create_directories(tmpl + d);
    setenv("QDQUICK_ROOT", tmpl.c_str(), 1);
    return tmpl;
}

void remove_root(const std::string &root) {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

std::string machine_text() {
    std::string load, line, model = "unknown cpu";
    std::getline(std::ifstream("/proc/loadavg"), load);
    std::ifstream cpu("/proc/cpuinfo");
    while (std::getline(cpu, line)) {
        if (line.rfind("model name", 0) == 0) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    }
    char text[256];
    // The three averages, whatever their width (loads of 10 and more).
    const size_t third = load.find(' ', load.find(' ', load.find(' ') + 1) + 1);
    load = load.substr(0, third);
    std::snprintf(text, sizeof text, "load average %s, %u cores, %s", load.c_str(),
                  std::thread::hardware_concurrency(), model.c_str());
    return text;
}

sockaddr_in loopback(unsigned port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

Fd bound(int type, unsigned port) {
    Fd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = loopback(port);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) throw std::runtime_error("bind failed");
    return fd;
}

unsigned port_of(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

bool readable(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

bool write_all(int fd, const void *data, size_t len) {
    const char *p = static_cast<const char *>(data);
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool read_exact(int fd, void *data, size_t len) {
    char *p = static_cast<char *>(data);
    while (len > 0) {
        ssize_t n = recv(fd, p, len, 0);
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace bench
