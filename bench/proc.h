// Child processes (the rows, the simulator, the daemon) and what /proc
// says about a process.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// A program started with its standard output on a pipe (or on /dev/null
// when not `captured`); stopped (SIGTERM, then SIGKILL) and reaped when
// destroyed.
class Child {
public:
    explicit Child(const std::vector<std::string> &argv, bool captured = true);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    // The next line of its output (without the newline), or "" at its end
    // or after `ms` milliseconds.
    std::string read_line(int ms);
    // The rest of its output and its exit status (-1 when killed).
    int finish(std::string &output);

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string pending_;
};

// Figures of a live process.
struct Usage {
    double rss_kib = 0, vm_kib = 0, threads = 0, fds = 0;
    double cpu_seconds = 0;  // user + system time so far (10 ms ticks)
    // On-CPU time of the threads alive now, from the scheduler's nanosecond
    // counters: fine enough for an idle process, blind to ended threads.
    double live_cpu_seconds = 0;
};
Usage usage_of(pid_t pid);

}  // namespace bench
