// AppMgrLogLine: one time-stamped line per call, appended to the named file,
// which is opened and closed on every call so that a file removed, renamed
// or emptied from outside is simply re-created or continued, and no
// descriptor is ever kept.
//
// Cost per line: the message is formatted before the lock is taken (into
// the caller's stack); under the lock one open (O_APPEND), one fstat for the
// size limit, one writev of the whole line and one close: four system calls
// where stdio took seven (open, two stats, two seeks, write, close). The
// time stamp is formatted at most once a second, under the lock, so stamps
// never go backwards in a file.
#include "common/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "common/paths.h"
#include "common/cancel.h"

extern "C" {
QDQ_API int gQuickLogSize = 2048;
// Statically initialised so that lines logged before initQdQuick are safe.
QDQ_API pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

// The message part of a line and its newline (no terminator is written).
using MessageBuffer = char[qdq::kLogMessageMax + 2];

// Used only while log_mutex is held: the stamp "Mar 05 2024 14:07:09 : " of
// the second in g_stamp_time.
char g_stamp[40];
size_t g_stamp_length = 0;
time_t g_stamp_time = -1;

// Lock held.
void refresh_stamp() {
    const time_t now = time(nullptr);
    if (now == g_stamp_time && g_stamp_length != 0) return;
    struct tm tmv;
    localtime_r(&now, &tmv);
    size_t n = strftime(g_stamp, 32, "%b %d %Y %H:%M:%S", &tmv);  // 0 on failure: an empty stamp
    std::memcpy(g_stamp + n, " : ", 3);
    g_stamp_length = n + 3;
    g_stamp_time = now;
}

// Formats the message part into `out` (cut at kLogMessageMax characters) and
// ends it with the line's newline; returns its length with the newline.
size_t format_message(MessageBuffer &out, const char *format, va_list ap) {
    const int n = std::vsnprintf(out, qdq::kLogMessageMax + 1, format, ap);
    const size_t len = n < 0 ? 0 : n > qdq::kLogMessageMax ? qdq::kLogMessageMax : static_cast<size_t>(n);
    out[len] = '\n';
    return len + 1;
}

enum class Append { written, open_failed, truncate_failed };

// Lock held. Appends one line to `file`, emptying the file first when it has
// reached the size limit. The file is opened for every line and no
// descriptor is kept: a kept one would show in the host's descriptor count
// and hold a removed file's space. Short writes are not retried (nor were
// they ever reported).
Append append_line(const char *file, const char *message, size_t length) {
    const int fd = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) return Append::open_failed;
    const int limit = gQuickLogSize;
    struct stat st;
    if (limit > 0 && fstat(fd, &st) == 0 && st.st_size / 1024 >= limit && ftruncate(fd, 0) != 0) {
        close(fd);
        return Append::truncate_failed;
    }
    refresh_stamp();
    // One call: the line is one append, never split by another process's.
    iovec parts[2] = {{g_stamp, g_stamp_length}, {const_cast<char *>(message), length}};
    ssize_t ignored = writev(fd, parts, 2);
    (void)ignored;
    close(fd);
    return Append::written;
}

}  // namespace

extern "C" QDQ_API int AppMgrLogLine(const char *path, const char *format, ...) {
    if (path == nullptr || format == nullptr) return -1;
    std::string file;
    try {
        file = qdq::path(path);
    } catch (const std::exception &) {
        return -1;  // out of memory: the line is lost, nothing else
    }
    MessageBuffer message;
    va_list ap;
    va_start(ap, format);
    const size_t length = format_message(message, format, ap);
    va_end(ap);

    // A thread cancelled inside would leave the lock held for ever.
    qdq::NoCancel no_cancel;
    pthread_mutex_lock(&log_mutex);
    switch (append_line(file.c_str(), message, length)) {
        case Append::written: break;
        case Append::truncate_failed: std::puts("open log file failed!"); break;
        case Append::open_failed:
            // Reported on the general log without re-entering the lock (the
            // lock is not recursive); when the general log itself cannot be
            // opened the report is dropped.
            if (std::strcmp(path, qdq::kLogMain) != 0) {
                static const char kFailed[] = "open log file failed!\n\n";
                try {
                    append_line(qdq::path(qdq::kLogMain).c_str(), kFailed, sizeof kFailed - 1);
                } catch (const std::exception &) {
                    // out of memory: the report is lost too
                }
            }
            break;
    }
    return pthread_mutex_unlock(&log_mutex);
}
