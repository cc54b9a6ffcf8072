#include "kvfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "adapter_io.h"
#include "common/cancel.h"

namespace qdp {
namespace {

// Read-modify-write of one file must not interleave between threads of this
// process, or one thread's key would be lost.
std::mutex g_write_mutex;

bool line_has_key(std::string_view line, std::string_view key) {
    return line.size() > key.size() && line.compare(0, key.size(), key) == 0 &&
           line[key.size()] == '=';
}

}  // namespace

KvResult kv_get(const std::string &file, std::string_view key, std::string &value) {
    value.clear();
    File f = open_read(file);
    if (!f) {
        if (errno == ENOENT || errno == ENOTDIR) return KvResult::missing;
        warn("cannot read %s: %s", file.c_str(), std::strerror(errno));
        return KvResult::error;
    }
    LineReader reader(f.get());
    std::string_view line;
    while (reader.next(line)) {
        if (line_has_key(line, key)) {
            value.assign(line.substr(key.size() + 1));
            return KvResult::found;
        }
    }
    return KvResult::missing;
}

bool kv_set(const std::string &file, std::string_view key, std::string_view value) {
    std::lock_guard<std::mutex> lock(g_write_mutex);
    qdq::NoCancel no_cancel;  // a cancelled writer would leave its temporary file

    std::string content;
    bool replaced = false;
    mode_t mode = 0644;
    if (File in = open_read(file)) {
        struct stat st {};
        if (::fstat(::fileno(in.get()), &st) == 0) mode = st.st_mode & 07777;
        LineReader reader(in.get());
        std::string_view line;
        while (reader.next(line)) {
            if (line_has_key(line, key)) {
                if (replaced) continue;
                replaced = true;
                content.append(key).append("=").append(value).append("\n");
            } else {
                content.append(line).append("\n");
            }
        }
    } else if (errno != ENOENT) {
        warn("cannot read %s: %s", file.c_str(), std::strerror(errno));
        return false;
    }
    if (!replaced) content.append(key).append("=").append(value).append("\n");

    std::string tmp = file + ".XXXXXX";
    qdq::Fd fd(::mkostemp(tmp.data(), O_CLOEXEC));
    if (!fd) {
        warn("cannot write %s: %s", file.c_str(), std::strerror(errno));
        return false;
    }
    bool ok = write_all(fd.get(), content) && ::fchmod(fd.get(), mode) == 0 &&
              ::fsync(fd.get()) == 0;
    int err = errno;
    fd.reset();
    if (ok && ::rename(tmp.c_str(), file.c_str()) != 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        ::unlink(tmp.c_str());
        warn("cannot write %s: %s", file.c_str(), std::strerror(err));
    }
    return ok;
}

}  // namespace qdp
