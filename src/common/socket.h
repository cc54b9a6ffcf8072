// The library's one socket helper: an owning descriptor, the two options
// every socket here gets, a scaled readability wait and socket addresses
// built from address text.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

namespace qdq {

// Owns one descriptor and closes it on destruction. Move-only.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    // Gives the descriptor up without closing it.
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Closes the held descriptor (if any) and takes `fd`.
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

// Both return 0 or -1 (errno set).
int set_cloexec(int fd);
int set_reuseaddr(int fd);

// Waits until `fd` is readable: `seconds` system seconds (scaled by the
// library clock), 0 = do not wait, negative = wait for ever. Resumes after
// signals. Returns 1 readable, 0 time-out, -1 error (errno set).
int wait_readable(int fd, double seconds);

// Connects a blocking socket, giving up after `seconds` system seconds
// (scaled); negative waits for ever. 0 or -1 (errno set, ETIMEDOUT on time-out).
int connect_within(int fd, const struct sockaddr *to, socklen_t len, double seconds);

// Socket addresses from numeric address text and a port. A null `text`
// gives the wildcard address. Return false (and leave the wildcard address
// in `out`) when the text is not a valid address of that family.
bool ipv4_address(const char *text, unsigned port, struct sockaddr_in &out);
bool ipv6_address(const char *text, unsigned port, struct sockaddr_in6 &out);

}  // namespace qdq
