// HgPushUpgradeMessage: the vendor daemon forwards install results to the
// operator; a plain host records each one as a line of its push log.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "adapter_io.h"
#include "common/paths.h"
#include "qdquick/qdplatform.h"

namespace {

constexpr const char *kPushLog = "/var/qdplatform_push.log";

// A fixed-size field, read no further than its size (it may lack the NUL);
// quotes and control characters become '?' so a record stays one line.
template <std::size_t N>
std::string field(const char (&text)[N]) {
    std::string out(text, strnlen(text, N));
    for (char &c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '"') c = '?';
    return out;
}

}  // namespace

extern "C" QDQ_API int HgPushUpgradeMessage(int type, upgrademsg *message) {
    if (message == nullptr) {
        qdp::warn("HgPushUpgradeMessage: no message");
        return -1;
    }
    return qdp::guard("HgPushUpgradeMessage", -1, [&] {
        char stamp[32] = "";
        std::time_t now = std::time(nullptr);
        std::tm tm {};
        if (::localtime_r(&now, &tm) != nullptr)
            std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
        std::string line = std::string(stamp) + " type=" + std::to_string(type) +
                           " failed=" + std::to_string(message->failed) + " version=\"" +
                           field(message->version) + "\" errcode=\"" + field(message->errcode) +
                           "\" upgradeid=\"" + field(message->upgradeid) + "\" name=\"" +
                           field(message->name) + "\"\n";
        const std::string log = qdq::path(kPushLog);
        qdq::Fd fd(::open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
        // One write per record: appends of concurrent pushes do not interleave.
        if (!fd || !qdp::write_all(fd.get(), line)) {
            qdp::warn("HgPushUpgradeMessage: cannot write %s: %s", log.c_str(),
                      std::strerror(errno));
            return -1;
        }
        return 0;
    });
}
