#include "adapter_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace qdp {

void warn(const char *fmt, ...) {
    char msg[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    // One call per line, so lines of concurrent threads do not mix.
    std::fprintf(stderr, "qdplatform: %s\n", msg);
}

void copy_text(char *dst, std::size_t cap, std::string_view text) {
    if (dst == nullptr || cap == 0) return;
    std::size_t n = text.size() < cap - 1 ? text.size() : cap - 1;
    std::memcpy(dst, text.data(), n);
    dst[n] = '\0';
}


bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

File open_read(const std::string &path) { return File(std::fopen(path.c_str(), "re")); }

LineReader::~LineReader() { std::free(buf_); }

bool LineReader::next(std::string_view &line) {
    ssize_t n = ::getline(&buf_, &cap_, f_);
    if (n < 0) return false;
    std::size_t len = static_cast<std::size_t>(n);
    if (len > 0 && buf_[len - 1] == '\n') --len;
    if (len > 0 && buf_[len - 1] == '\r') --len;
    line = std::string_view(buf_, len);
    return true;
}

}  // namespace qdp
