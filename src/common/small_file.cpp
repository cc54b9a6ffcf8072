#include "common/small_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/socket.h"

namespace qdq {

bool read_small_file(const std::string &path, std::size_t cap, std::string &text) {
    text.clear();
    Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<unsigned long long>(st.st_size) > cap)
        return false;
    text.resize(cap + 1);  // one more: a file that grew past the cap is refused
    const ssize_t n = read(fd.get(), &text[0], text.size());
    if (n < 0 || static_cast<std::size_t>(n) > cap) {
        text.clear();
        return false;
    }
    text.resize(static_cast<std::size_t>(n));
    return true;
}

}  // namespace qdq
