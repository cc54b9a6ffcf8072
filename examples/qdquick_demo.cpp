// qdquick-demo: a small host that initialises the library with its
// callbacks, arms a few timers and shows them firing and the log they leave.
// Runs inside $QDQUICK_ROOT (the scripts point it at a scratch directory).
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "qdquick/qdquick.h"

namespace {

// Timer ids with no action in the library, so they come back to on_timer.
enum DemoTimer { kTimerCube = 8, kTimerHostTick = 30 };

std::atomic<int> g_fired{0};
auto g_start = std::chrono::steady_clock::now();

double elapsed() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - g_start).count();
}

// Slot 0: timer ids the library leaves to its host (8 = connect the cube).
void on_timer(int id, int period, int multtimes, int) {
    std::printf("[%5.2fs] host timer %d fired (period %d s, repeating %d)\n", elapsed(), id, period,
                multtimes);
    std::fflush(stdout);
    ++g_fired;
}

void on_status(int plattype, const char *status, int result) {
    std::printf("[%5.2fs] platform %d is now %s (%d)\n", elapsed(), plattype, status, result);
}

}  // namespace

int main() {
    const char *root = std::getenv("QDQUICK_ROOT");
    std::printf("qdquick demo host, root %s\n", root && *root ? root : "/");

    quickevcb_t cb{};
    cb.timerevent = on_timer;
    cb.platstatus = on_status;
    initQdQuick(&cb);
    std::printf("cube: %s, manage: %s, plugin: %s\n", cubeplatinfo.status, manageplatinfo.status,
                pluginplatinfo.status);

    AppTimerCreate(1, kTimerCube, 0, QdTimeoutHandle);      // one-shot after 1 s
    AppTimerCreate(2, kTimerHostTick, 1, QdTimeoutHandle);  // every 2 s
    while (g_fired < 3 && elapsed() < 15) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    AppTimerDestory(kTimerHostTick);

    char digest[33];
    getmd5("abc", digest);
    std::printf("getmd5(\"abc\") = %s\n", digest);

    std::printf("--- last lines of %s/var/shrcadlog.txt ---\n", root ? root : "");
    std::ifstream log(std::string(root ? root : "") + "/var/shrcadlog.txt");
    std::string line, lines[8];
    int n = 0;
    while (std::getline(log, line))
        if (!line.empty()) lines[n++ % 8] = line;
    for (int i = n > 8 ? n - 8 : 0; i < n; ++i) std::printf("%s\n", lines[i % 8].c_str());
    return g_fired >= 3 ? 0 : 1;
}
