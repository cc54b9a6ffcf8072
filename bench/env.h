// The benchmark's process environment: a private root for the library's
// files, the machine's load, small socket helpers shared by the rows.
#pragma once

#include <netinet/in.h>
#include <unistd.h>

#include <string>

namespace bench {

// Creates a fresh root with the directories the library writes to, sets
// QDQUICK_ROOT to it and returns it. On tmpfs when there is one, as /var is
// on the gateway.
std::string make_root();
void remove_root(const std::string &root);

// "load average 0.52 0.31 0.20, 2 cores, <cpu model>".
std::string machine_text();

// Owns one descriptor.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    Fd &operator=(Fd &&o) noexcept {
        if (this != &o) {
            reset(o.fd_);
            o.fd_ = -1;
        }
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    int get() const { return fd_; }

private:
    int fd_;
};

sockaddr_in loopback(unsigned port);
// A socket of `type` bound to loopback on `port` (0: any free port).
Fd bound(int type, unsigned port = 0);
unsigned port_of(int fd);
// Waits up to `ms` for `fd` to be readable.
bool readable(int fd, int ms);
bool write_all(int fd, const void *data, size_t len);
bool read_exact(int fd, void *data, size_t len);

}  // namespace bench
