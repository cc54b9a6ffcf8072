// Row 4: AppMgrLogLine (format, lock, a stat of the path checked against the
// kept descriptor, which also gives the size, one writev per line) against
// one write(2) of the same bytes to a file kept open, with one and with four
// threads; and that mechanism's floor (the same two calls, no lock, no
// formatting).
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "qdquick/qdquick.h"
#include "rows.h"

namespace bench {
namespace {

constexpr const char *kLog = "/var/bench-log.txt";  // the library adds the root

// `op` per second summed over `threads` threads running at once.
double rate_threads(int threads, const std::function<void()> &op, double seconds) {
    std::vector<double> each(threads);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; t++) pool.emplace_back([&, t] { each[t] = rate(op, seconds); });
    for (auto &t : pool) t.join();
    double sum = 0;
    for (double r : each) sum += r;
    return sum;
}

// A line as AppMgrLogLine writes it: time stamp, " : ", message, newline.
std::string line_of(const char *message) {
    char stamp[32];
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    strftime(stamp, sizeof stamp, "%b %d %Y %H:%M:%S", &tmv);
    return std::string(stamp) + " : " + message + "\n";
}

}  // namespace

std::vector<Figure> log_rows(const Plan &plan) {
    const std::string root = getenv("QDQUICK_ROOT");
    const std::string plain_path = root + "/var/bench-plain.txt";
    // A typical line of the local UDP service.
    const std::string line = line_of("StartProcessUdpRequest plattype:5,port:18401\n");
    auto ours = [] { AppMgrLogLine(kLog, "StartProcessUdpRequest plattype:%d,port:%d\n", 5, 18401); };

    std::vector<Figure> out;
    for (int threads : {1, 4}) {
        auto r = alternate(
            plan.repeats, [&] { return Sample{rate_threads(threads, ours, plan.window)}; },
            [&] {
                int fd = open(plain_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
                auto plain = [&] {
                    if (write(fd, line.data(), line.size()) < 0) std::abort();
                };
                double r = rate_threads(threads, plain, plan.window);
                close(fd);
                return Sample{r};
            });
        out.push_back({"4", "AppMgrLogLine, " + std::to_string(threads) + (threads == 1 ? " thread" : " threads"),
                       "lines/s", r.first[0], r.second[0], true, "write(2) of the same line to an open file"});
    }
    // The floor of checking the path per line (a file removed, renamed or
    // replaced from outside is followed on the next line).
    auto r = alternate(
        plan.repeats,
        [&] {
            int fd = open(plain_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
            double r = rate(
                [&] {
                    struct stat st;
                    if (fd < 0 || lstat(plain_path.c_str(), &st) != 0) std::abort();
                    if (st.st_size >= (2 << 20) && ftruncate(fd, 0) != 0) std::abort();  // the same 2 MiB limit
                    if (write(fd, line.data(), line.size()) < 0) std::abort();
                },
                plan.window);
            close(fd);
            return Sample{r};
        },
        [&] {
            int fd = open(plain_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
            double r = rate(
                [&] {
                    if (write(fd, line.data(), line.size()) < 0) std::abort();
                },
                plan.window);
            close(fd);
            return Sample{r};
        });
    out.push_back({"4", "stat/write per line, no lock, no formatting (the floor)", "lines/s",
                   r.first[0], r.second[0], true, "write(2) of the same line to an open file"});
    return out;
}

}  // namespace bench
