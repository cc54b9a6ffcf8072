// The plugin process log: one time-stamped line per C plugin run or stop.
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "common/log.h"
#include "common/paths.h"
#include "common/thread.h"
#include "platintf/session.h"

namespace {

constexpr long kPluginLogLimitKiB = 1024;
constexpr size_t kMessageMax = 9999;

struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

}  // namespace

void HgSavePluginProcessLog(const char *format, ...) {
    if (format == nullptr) return;
    // Plugin workers may be cancelled; the file must not be left open.
    qdq::NoCancel no_cancel;
    const std::string file = qdq::path("/var/pluginlog.txt");
    File f(std::fopen(file.c_str(), "a"));
    if (!f) {
        QDQ_LOG("open log file failed!\n");
        return;
    }
    struct stat st;
    if (fstat(fileno(f.get()), &st) == 0 && st.st_size / 1024 >= kPluginLogLimitKiB) {
        f.reset(std::fopen(file.c_str(), "w"));
        if (!f) {
            std::printf("open log file failed!");
            return;
        }
    }
    char stamp[64] = "";
    const time_t now = std::time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) != nullptr) std::strftime(stamp, sizeof stamp, "%b %d %Y %H:%M:%S", &local);
    char message[kMessageMax + 1];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(message, sizeof message, format, ap);
    va_end(ap);
    std::fprintf(f.get(), "%s : %s\n", stamp, message);
}
