// AppMgrLogLine: one time-stamped line per call, appended to the named file.
// A file removed, renamed, replaced or emptied from outside is re-created or
// continued on the next line, exactly as if it were opened for every line.
//
// Cost per line: the message is formatted before the lock is taken (into
// the caller's stack). Under the lock the file's descriptor is kept between
// lines but used only after a stat of the path shows the same file, so no
// line ever goes into a removed or replaced file; the same stat gives the
// size for the limit, and the line is one writev: two system calls where
// stdio took seven. The time stamp is formatted at most once a second,
// under the lock, so stamps never go backwards in a file.
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

// A log file's descriptor kept between lines and the identity of the file
// it was opened on. Used only while log_mutex is held.
struct KeptLog {
    std::string key;   // the caller's path, before the root is applied
    std::string file;  // the path opened
    int fd = -1;
    dev_t dev = 0;
    ino_t ino = 0;
    unsigned long used = 0;  // when last written, for choosing a slot to reuse

    void drop() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
};

// The general, trace and push logs and one more; a further file takes the
// slot written least recently.
constexpr unsigned kKeptLogs = 4;
unsigned long g_lines = 0;

// Never destroyed: detached threads still log while the process exits,
// after static destructors have run.
KeptLog *kept_logs() {
    static KeptLog *const logs = new KeptLog[kKeptLogs];
    return logs;
}

// Lock held. The slot of `key`, or a reused one (its descriptor closed and
// its fd -1) set to `key`; nullptr when out of memory.
KeptLog *slot_of(const char *key) {
    KeptLog *logs = kept_logs(), *oldest = &logs[0];
    for (unsigned i = 0; i < kKeptLogs; ++i) {
        if (logs[i].key == key) return &logs[i];
        if (logs[i].used < oldest->used) oldest = &logs[i];
    }
    oldest->drop();
    try {
        oldest->file = qdq::path(key);
        oldest->key = key;
    } catch (const std::exception &) {
        oldest->key.clear();
        return nullptr;
    }
    return oldest;
}

// Lock held. The descriptor of `log`'s file and its current size, or -1.
// The kept descriptor is used only while the path still names the file it
// was opened on; otherwise it is closed (which also frees a removed file's
// space) and the path opened again. No link is followed: a log path turned
// into a link by someone else is not written through.
int log_descriptor(KeptLog &log, off_t &size) {
    struct stat st;
    if (log.fd >= 0) {
        if (lstat(log.file.c_str(), &st) == 0 && st.st_dev == log.dev && st.st_ino == log.ino) {
            size = st.st_size;
            return log.fd;
        }
        log.drop();
    }
    int fd = open(log.file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd >= 0 && fd <= 2) {
        // A host that runs with standard streams closed and later points
        // them elsewhere (dup2, freopen) would take a kept descriptor there.
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        close(fd);
        fd = moved;
    }
    if (fd < 0) return -1;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return -1;
    }
    log.fd = fd;
    log.dev = st.st_dev;
    log.ino = st.st_ino;
    size = st.st_size;
    return fd;
}

// Lock held. Appends one line to `key`'s file, emptying the file first when
// it has reached the size limit. Short writes are not retried (nor were
// they ever reported).
Append append_line(const char *key, const char *message, size_t length) {
    KeptLog *log = slot_of(key);
    if (log == nullptr) return Append::open_failed;
    log->used = ++g_lines;
    off_t size = 0;
    const int fd = log_descriptor(*log, size);
    if (fd < 0) return Append::open_failed;
    const int limit = gQuickLogSize;
    if (limit > 0 && size / 1024 >= limit && ftruncate(fd, 0) != 0) return Append::truncate_failed;
    refresh_stamp();
    // One call: the line is one append, never split by another process's.
    iovec parts[2] = {{g_stamp, g_stamp_length}, {const_cast<char *>(message), length}};
    ssize_t ignored = writev(fd, parts, 2);
    (void)ignored;
    return Append::written;
}

// The kept descriptors are closed when the library is unloaded (or the
// process exits); a line logged afterwards opens its file again. Never
// waits: with the lock held elsewhere the process's end closes them.
__attribute__((destructor)) void close_kept_logs() {
    if (pthread_mutex_trylock(&log_mutex) != 0) return;
    for (unsigned i = 0; i < kKeptLogs; ++i) kept_logs()[i].drop();
    pthread_mutex_unlock(&log_mutex);
}

}  // namespace

extern "C" QDQ_API int AppMgrLogLine(const char *path, const char *format, ...) {
    if (path == nullptr || format == nullptr) return -1;
    MessageBuffer message;
    va_list ap;
    va_start(ap, format);
    const size_t length = format_message(message, format, ap);
    va_end(ap);

    // A thread cancelled inside would leave the lock held for ever.
    qdq::NoCancel no_cancel;
    pthread_mutex_lock(&log_mutex);
    switch (append_line(path, message, length)) {
        case Append::written: break;
        case Append::truncate_failed: std::puts("open log file failed!"); break;
        case Append::open_failed:
            // Reported on the general log without re-entering the lock (the
            // lock is not recursive); when the general log itself cannot be
            // opened the report is dropped.
            if (std::strcmp(path, qdq::kLogMain) != 0) {
                static const char kFailed[] = "open log file failed!\n\n";
                append_line(qdq::kLogMain, kFailed, sizeof kFailed - 1);
            }
            break;
    }
    return pthread_mutex_unlock(&log_mutex);
}
