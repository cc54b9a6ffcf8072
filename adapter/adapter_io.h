// Small I/O helpers shared by the adapter: failure messages on stderr,
// bounded copies into caller buffers, owned descriptors and streams, and a
// line reader. The adapter does not link libqdquick, so it has its own.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "common/guard.h"
#include "common/socket.h"
#include "qdquick/qdq_export.h"

namespace qdp {

// One line "qdplatform: <message>" on stderr. Only for failures.
void warn(const char *fmt, ...) QDQ_PRINTF(1, 2);

// Runs an exported function's body: no exception crosses the C ABI. A
// std::exception becomes the line "<entry>: <what>" and `on_failure`.
template <typename R, typename Body>
R guard(const char *entry, R on_failure, Body &&body) {
    return qdq::guard_with([](const char *name, const char *what) { warn("%s: %s", name, what); }, entry,
                           on_failure, std::forward<Body>(body));
}

// Copies at most cap - 1 characters of text and a NUL into dst (cap > 0).
void copy_text(char *dst, std::size_t cap, std::string_view text);


// Writes all of data to fd (retrying short writes and EINTR).
bool write_all(int fd, std::string_view data);

struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Opens a file for reading with close-on-exec, so a concurrent fork for a
// command never inherits it. Null with errno set on failure.
File open_read(const std::string &path);

// Reads a stream line by line; a line is returned without "\n" or "\r\n".
// The view stays valid until the next call.
class LineReader {
public:
    explicit LineReader(std::FILE *f) : f_(f) {}
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    bool next(std::string_view &line);

private:
    std::FILE *f_;
    char *buf_ = nullptr;
    std::size_t cap_ = 0;
};

}  // namespace qdp
