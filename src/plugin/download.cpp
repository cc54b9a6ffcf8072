#include "plugin/download.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "common/clock.h"
#include "common/log.h"
#include "common/cancel.h"
#include "plugin/plugin_hooks.h"
#include "plugin/shellsafe.h"

namespace qdq::plugin {

namespace {

struct Progress {
    long long done = 0, expected = 0;
};

std::mutex g_mutex;
std::map<std::string, Progress> g_progress;  // by bundle name, while downloading

void set_progress(const std::string &name, long long done, long long expected) {
    NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_progress[name] = {done, expected};
}

// The plugin is listed as downloading exactly while this lives.
class ProgressEntry {
public:
    ProgressEntry(const std::string &name, long long expected) : name_(name) { set_progress(name, 0, expected); }
    ~ProgressEntry() {
        NoCancel no_cancel;
        std::lock_guard<std::mutex> lock(g_mutex);
        g_progress.erase(name_);
    }
    ProgressEntry(const ProgressEntry &) = delete;
    ProgressEntry &operator=(const ProgressEntry &) = delete;

private:
    std::string name_;
};

// wget takes fractional seconds; 0 would mean "no time-out".
std::string seconds_arg(double seconds) {
    double s = std::max(1.0, static_cast<double>(scaled(seconds).count()) / 1e9);
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", s);
    return text;
}

long long file_size(const std::string &file) {
    struct stat st;
    return lstat(file.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// The first part of wget's output, where the server's "Length: N" stands.
std::string log_head(const std::string &log, std::size_t cap) {
    std::string text;
    if (std::FILE *in = std::fopen(log.c_str(), "re")) {
        text.resize(cap);
        text.resize(std::fread(&text[0], 1, cap, in));
        std::fclose(in);
    }
    return text;
}

long long server_length(const std::string &log) {
    std::string head = log_head(log, 4096);
    std::size_t at = head.find("Length: ");
    if (at == std::string::npos) return 0;
    char *end = nullptr;
    long long n = std::strtoll(head.c_str() + at + 8, &end, 10);
    return end != head.c_str() + at + 8 && n > 0 ? n : 0;
}

// wget's output goes to the general log, a bounded number of printable
// lines, not to the host's standard output.
void copy_log(const std::string &log) {
    std::string text = log_head(log, 16384);
    int lines = 0;
    for (std::size_t at = 0; at < text.size() && lines < 64;) {
        std::size_t nl = text.find('\n', at);
        std::string line = text.substr(at, (nl == std::string::npos ? text.size() : nl) - at).substr(0, 200);
        at = nl == std::string::npos ? text.size() : nl + 1;
        for (char &c : line)
            if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = ' ';
        if (line.find_first_not_of(' ') == std::string::npos) continue;
        QDQ_LOG("wget: %s", line.c_str());
        ++lines;
    }
}

void report(const Download &d, long long done, long long expected, bool first) {
    set_progress(d.name, done, expected);
    // The first report is logged like every status; the ticks after it only
    // refresh what the host shows.
    if (first) {
        HgSetCpluginStatus(d.name.c_str(), d.version.c_str(), "Downloading", d.upgradeid.c_str());
        return;
    }
    qdqpluginhooks_t hooks = qdq::plugin_hooks();
    if (hooks.status != nullptr) hooks.status(d.name.c_str(), d.version.c_str(), "Downloading", d.upgradeid.c_str());
}

// Closes the shell's pipe on every path (cancellation included).
struct ShellPipe {
    std::FILE *fp;
    ~ShellPipe() {
        if (fp != nullptr) pclose(fp);
    }
};

}  // namespace

int download(const Download &d) {
    const std::string wget = "LC_ALL=C wget -P " + sq(d.dir) + " -o " + sq(d.log) +
                             " --progress=dot:mega --connect-timeout=" + seconds_arg(kConnectTimeout) +
                             " --read-timeout=" + seconds_arg(kReadTimeout) +
                             " --tries=" + std::to_string(kDownloadTries) + " " + sq(d.url);
    QDQ_LOG("download cmd:%s", wget.c_str());
    // In the background so that this thread can watch the file grow: the
    // shell names wget's pid, then reports its status (this process may
    // ignore SIGCHLD, so it could not wait for wget itself).
    const std::string watched = wget + " </dev/null >/dev/null 2>&1 & echo \"$!\"; wait \"$!\"; echo \"$?\"";
    ShellPipe shell{popen(watched.c_str(), "re")};
    if (shell.fp == nullptr) return -1;
    ProgressEntry entry(d.name, d.expected);
    long long expected = d.expected, last = 0;
    report(d, 0, expected, true);
    const auto deadline = std::chrono::steady_clock::now() + scaled(kMaxDownloadSeconds);
    const int tick_ms = std::max<int>(10, static_cast<int>(scaled(1.0).count() / 1000000));
    std::string out;
    pid_t pid = 0;
    bool stopped = false;
    for (;;) {
        std::size_t nl = out.find('\n');
        if (nl != std::string::npos && pid == 0) {
            pid = static_cast<pid_t>(std::atol(out.c_str()));
            out.erase(0, nl + 1);
            continue;
        }
        if (nl != std::string::npos) break;  // the status line
        struct pollfd p = {fileno(shell.fp), POLLIN, 0};
        int ready = poll(&p, 1, tick_ms);
        if (ready < 0 && errno != EINTR) break;
        if (ready > 0) {
            char buf[64];
            ssize_t n = read(p.fd, buf, sizeof buf);
            if (n <= 0) break;
            out.append(buf, static_cast<std::size_t>(n));
            continue;
        }
        long long done = file_size(d.dir + d.file);
        if (expected <= 0) expected = server_length(d.log);
        if (done != last) report(d, done, expected, false);
        last = done;
        const char *why = done > kMaxPackage                                 ? "package too large"
                          : std::chrono::steady_clock::now() > deadline ? "download too slow"
                                                                             : nullptr;
        // The pid is wget's until the shell has reported its status.
        if (why != nullptr && pid > 0 && !stopped) {
            QDQ_LOG("download stopped: %s", why);
            kill(pid, SIGTERM);
            stopped = true;
        }
    }
    copy_log(d.log);
    char *end = nullptr;
    long code = std::strtol(out.c_str(), &end, 10);
    if (end == out.c_str() || code < 0 || code > 255) return -1;
    return stopped ? 1 << 8 : static_cast<int>(code) << 8;
}

}  // namespace qdq::plugin

extern "C" QDQ_API int HgGetCpluginDownload(const char *name, long long *done, long long *expected) {
    if (name == nullptr) return -1;
    qdq::NoCancel no_cancel;
    std::lock_guard<std::mutex> lock(qdq::plugin::g_mutex);
    auto it = qdq::plugin::g_progress.find(name);
    if (it == qdq::plugin::g_progress.end()) return -1;
    if (done != nullptr) *done = it->second.done;
    if (expected != nullptr) *expected = it->second.expected;
    return 0;
}
