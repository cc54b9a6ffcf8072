#include "proc.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char **environ;

namespace bench {

Child::Child(const std::vector<std::string> &argv, bool captured) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (captured)
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
    if (rc != 0) {
        close(out_);
        pid_ = -1;
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
    }
}

Child::~Child() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 300 && waitpid(pid_, &status, WNOHANG) == 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (waitpid(pid_, &status, WNOHANG) == 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
    }
    if (out_ >= 0) close(out_);
}

std::string Child::read_line(int ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        size_t nl = pending_.find('\n');
        if (nl != std::string::npos) {
            std::string line = pending_.substr(0, nl);
            pending_.erase(0, nl + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd p{out_, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1) return "";
        char buf[4096];
        ssize_t n = read(out_, buf, sizeof buf);
        if (n <= 0) return "";
        pending_.append(buf, static_cast<size_t>(n));
    }
}

int Child::finish(std::string &output) {
    output = pending_;
    pending_.clear();
    char buf[4096];
    for (ssize_t n; (n = read(out_, buf, sizeof buf)) > 0;) output.append(buf, static_cast<size_t>(n));
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Usage usage_of(pid_t pid) {
    Usage u;
    const std::string dir = "/proc/" + std::to_string(pid);
    std::ifstream status(dir + "/status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string key;
        double value = 0;
        words >> key >> value;
        if (key == "VmRSS:") u.rss_kib = value;
        if (key == "VmSize:") u.vm_kib = value;
        if (key == "Threads:") u.threads = value;
    }
    if (DIR *d = opendir((dir + "/fd").c_str())) {
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.') u.fds++;
        closedir(d);
    }
    // Fields 14 and 15 of stat (user, system time in ticks); the command
    // name before them may hold blanks, so count from its closing ')'.
    std::string stat;
    std::getline(std::ifstream(dir + "/stat"), stat);
    size_t close_paren = stat.rfind(')');
    if (close_paren != std::string::npos) {
        std::istringstream rest(stat.substr(close_paren + 2));
        std::string skip;
        for (int field = 3; field < 14; field++) rest >> skip;
        double utime = 0, stime = 0;
        rest >> utime >> stime;
        u.cpu_seconds = (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    if (DIR *d = opendir((dir + "/task").c_str())) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            unsigned long long ns = 0;
            if (std::ifstream(dir + "/task/" + e->d_name + "/schedstat") >> ns) u.live_cpu_seconds += ns / 1e9;
        }
        closedir(d);
    }
    return u;
}

}  // namespace bench
