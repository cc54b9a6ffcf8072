#include "plugin/plugin_procs.h"

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "common/clock.h"
#include "common/log.h"
#include "plugin/plugin_paths.h"

namespace qdq::plugin {

namespace {

// System seconds a plugin gets between SIGTERM and SIGKILL, and after
// SIGKILL before it is given up (it can only be in an uninterruptible wait).
constexpr double kStopGraceSeconds = 5;

struct Group {
    pid_t leader;
    unsigned long long start;  // the leader's start time: a reused pid is not ours
    bool limiter;
};

std::mutex g_mutex;
std::map<std::string, std::vector<Group>> g_groups;  // by short name

struct ProcStat {
    bool exists = false;
    char state = '?';
    pid_t pgrp = 0;
    unsigned long long start = 0;
};

// /proc is the running kernel's, never under the file root.
ProcStat proc_stat(pid_t pid) {
    ProcStat st;
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return st;
    // The name in parentheses may hold blanks and ')': fields follow the last one.
    const auto paren = line.rfind(')');
    if (paren == std::string::npos) return st;
    std::istringstream fields(line.substr(paren + 1));
    std::vector<std::string> f;
    for (std::string w; fields >> w && f.size() < 20;) f.push_back(w);
    if (f.size() < 20) return st;
    st.exists = true;
    st.state = f[0][0];
    st.pgrp = static_cast<pid_t>(std::atol(f[2].c_str()));
    st.start = std::strtoull(f[19].c_str(), nullptr, 10);
    return st;
}

bool alive(const ProcStat &st) { return st.exists && st.state != 'Z' && st.state != 'X'; }

// Live members of process group `pgid`.
int members(pid_t pgid) {
    struct DirCloser {
        void operator()(DIR *d) const { closedir(d); }
    };
    std::unique_ptr<DIR, DirCloser> proc(opendir("/proc"));
    if (!proc) return kill(-pgid, 0) == 0 ? 1 : 0;
    int n = 0;
    while (const dirent *e = readdir(proc.get())) {
        char *end = nullptr;
        long pid = std::strtol(e->d_name, &end, 10);
        if (end == e->d_name || *end != '\0' || pid <= 0) continue;
        ProcStat st = proc_stat(static_cast<pid_t>(pid));
        if (alive(st) && st.pgrp == pgid) ++n;
    }
    return n;
}

// The leader is our child: collect it once it has ended (nothing to do when
// the process ignores SIGCHLD and the kernel reaps). Only while the pid is
// still that leader's: a later child with the same number is not ours to reap.
void reap(const Group &g) {
    const ProcStat st = proc_stat(g.leader);
    if (st.exists && st.start == g.start) waitpid(g.leader, nullptr, WNOHANG);
}

// Still the group we started? Its leader's pid cannot be handed out again
// while any member of the group lives; once the leader is gone, a process
// that now holds the number must have started later.
bool is_ours(const Group &g) {
    ProcStat st = proc_stat(g.leader);
    if (st.exists && st.start != g.start) return false;
    return members(g.leader) > 0;
}

// Waits until every group has no live member, or the deadline passes.
bool wait_empty(const std::vector<Group> &groups, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        bool empty = true;
        for (const Group &g : groups) {
            reap(g);
            if (members(g.leader) > 0) empty = false;
        }
        if (empty) {
            // A leader that ended after its reap above is a zombie now.
            for (const Group &g : groups) reap(g);
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) return false;
        qdq::sleep_for(0.05);
    }
}

std::vector<Group> take(const std::string &shortname) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_groups.find(shortname);
    if (it == g_groups.end()) return {};
    std::vector<Group> out = std::move(it->second);
    g_groups.erase(it);
    return out;
}

// All groups are signalled first and share one grace period.
int stop_groups(const std::vector<Group> &groups) {
    std::vector<Group> ours;
    for (const Group &g : groups) {
        reap(g);
        if (is_ours(g)) ours.push_back(g);
    }
    for (const Group &g : ours) {
        kill(-g.leader, SIGTERM);
        kill(-g.leader, SIGCONT);  // a limiter may hold it stopped
    }
    if (!wait_empty(ours, std::chrono::steady_clock::now() + qdq::scaled(kStopGraceSeconds))) {
        for (const Group &g : ours) {
            if (members(g.leader) == 0) continue;
            QDQ_LOG("plugin process group %d ignored SIGTERM, killing it", static_cast<int>(g.leader));
            kill(-g.leader, SIGKILL);
        }
        if (!wait_empty(ours, std::chrono::steady_clock::now() + qdq::scaled(kStopGraceSeconds)))
            QDQ_LOG("plugin process groups still have members after SIGKILL");
    }
    return static_cast<int>(ours.size());
}

}  // namespace

void track(const std::string &shortname, pid_t leader, bool limiter) {
    Group g{leader, proc_stat(leader).start, limiter};
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<Group> &list = g_groups[shortname];
    // Forget groups that ended on their own.
    for (auto it = list.begin(); it != list.end();) {
        reap(*it);
        if (!is_ours(*it)) it = list.erase(it);
        else ++it;
    }
    list.push_back(g);
}

bool adopt(const std::string &shortname, pid_t pid) {
    const ProcStat st = proc_stat(pid);
    if (pid <= 0 || !alive(st) || st.pgrp != pid) return false;
    char cwd[4096];
    const ssize_t n = readlink(("/proc/" + std::to_string(pid) + "/cwd").c_str(), cwd, sizeof cwd - 1);
    if (n <= 0) return false;
    cwd[n] = '\0';
    std::error_code ec;
    const auto mine = std::filesystem::canonical(plugin_dir(shortname) + "MyPlugin", ec);
    if (ec || mine.string() != cwd) return false;
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const Group &g : g_groups[shortname])
        if (g.leader == pid) return true;
    g_groups[shortname].push_back(Group{pid, st.start, false});
    return true;
}

pid_t running_pid(const std::string &shortname) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_groups.find(shortname);
    if (it == g_groups.end()) return 0;
    for (const Group &g : it->second) {
        if (g.limiter) continue;
        reap(g);
        ProcStat st = proc_stat(g.leader);
        if (alive(st) && st.start == g.start) return g.leader;
    }
    return 0;
}

int stop_tracked(const std::string &shortname) { return stop_groups(take(shortname)); }

int stop_all_tracked() {
    std::vector<Group> all;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        for (auto &[name, list] : g_groups) all.insert(all.end(), list.begin(), list.end());
        g_groups.clear();
    }
    return stop_groups(all);
}

}  // namespace qdq::plugin
