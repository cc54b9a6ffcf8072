#include "plugin/plugin_log.h"

#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

#include "common/log.h"
#include "common/paths.h"

namespace {
constexpr long kPluginLogLimitKiB = 1024;
constexpr const char *kPluginLog = "/var/pluginlog.txt";
}  // namespace

// Written without a lock: each call opens, writes and closes the file, and
// its buffers are its own, so concurrent plugin workers only interleave lines.
void HgSavePluginProcessLog(const char *format, ...) {
    if (format == nullptr) return;
    std::string file;
    try {
        file = qdq::path(kPluginLog);
    } catch (const std::exception &) {
        return;
    }
    FILE *fp = std::fopen(file.c_str(), "ae");
    if (fp == nullptr) {
        QDQ_LOG("open log file failed!\n");
        return;
    }
    std::fseek(fp, 0, SEEK_END);
    long size = std::ftell(fp);
    if (size >= 0 && size / 1024 >= kPluginLogLimitKiB) {
        std::fclose(fp);
        fp = std::fopen(file.c_str(), "we");
        if (fp == nullptr) {
            std::puts("open log file failed!");
            return;
        }
    }
    char stamp[32];
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    if (strftime(stamp, sizeof stamp, "%b %d %Y %H:%M:%S", &tmv) == 0) stamp[0] = '\0';
    char message[qdq::kLogMessageMax + 2];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(message, qdq::kLogMessageMax + 2, format, ap);
    va_end(ap);
    std::fprintf(fp, "%s : %s\n", stamp, message);
    std::fclose(fp);
}
