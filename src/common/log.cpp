// AppMgrLogLine: one time-stamped line per call, appended to the named file,
// which is opened and closed on every call so that a file removed or emptied
// from outside is simply re-created.
#include "common/log.h"

#include <pthread.h>
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "common/paths.h"
#include "common/thread.h"

extern "C" {
QDQ_API int gQuickLogSize = 2048;
// Statically initialised so that lines logged before initQdQuick are safe.
QDQ_API pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

// Both used only while log_mutex is held.
char g_stamp[32];
char g_message[10000];

// Opens `file` for appending, emptying it first when it has reached the size
// limit. Returns nullptr when it cannot be opened; `truncate_failed` tells
// the second open failed.
FILE *open_limited(const std::string &file, bool &truncate_failed) {
    truncate_failed = false;
    FILE *fp = std::fopen(file.c_str(), "ae");
    if (fp == nullptr) return nullptr;
    int limit = gQuickLogSize;
    if (limit > 0) {
        std::fseek(fp, 0, SEEK_END);
        long size = std::ftell(fp);
        if (size >= 0 && size / 1024 >= limit) {
            std::fclose(fp);
            fp = std::fopen(file.c_str(), "wbe");
            if (fp == nullptr) truncate_failed = true;
        }
    }
    return fp;
}

void write_line(FILE *fp, const char *message) {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    if (strftime(g_stamp, sizeof g_stamp, "%b %d %Y %H:%M:%S", &tmv) == 0) g_stamp[0] = '\0';
    std::fprintf(fp, "%s : %s\n", g_stamp, message);
    std::fclose(fp);
}

}  // namespace

extern "C" QDQ_API int AppMgrLogLine(const char *path, const char *format, ...) {
    if (path == nullptr || format == nullptr) return -1;
    std::string file, main_file;
    try {
        file = qdq::path(path);
        main_file = qdq::path(qdq::kLogMain);
    } catch (const std::exception &) {
        return -1;  // out of memory: the line is lost, nothing else
    }
    // A thread cancelled inside would leave the lock held for ever.
    qdq::NoCancel no_cancel;
    pthread_mutex_lock(&log_mutex);
    bool truncate_failed = false;
    FILE *fp = open_limited(file, truncate_failed);
    if (fp == nullptr) {
        if (truncate_failed) {
            std::puts("open log file failed!");
        } else if (std::strcmp(path, qdq::kLogMain) != 0) {
            // Report on the general log without re-entering the lock (the
            // lock is not recursive); when the general log itself cannot be
            // opened the report is dropped.
            bool ignored = false;
            FILE *main = open_limited(main_file, ignored);
            if (main != nullptr) write_line(main, "open log file failed!\n");
        }
        return pthread_mutex_unlock(&log_mutex);
    }
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(g_message, qdq::kLogMessageMax + 1, format, ap);
    va_end(ap);
    write_line(fp, g_message);
    return pthread_mutex_unlock(&log_mutex);
}
