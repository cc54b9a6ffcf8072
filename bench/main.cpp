// qdquick-bench: prints one table of where the library stands against
// baselines measured in the same run. Runs at QDQUICK_TIME_SCALE=1 unless
// told otherwise; binds the fixed ports 18401 and 18998, so run it in a
// private network namespace (scripts/bench.sh does).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>

#include "env.h"
#include "qdquick/qdquick.h"
#include "rows.h"

namespace {

void usage() {
    std::fprintf(stderr,
                 "usage: qdquick-bench [--quick] [--rows 1,2,3,4,5] [--sim PATH] [--daemon PATH]\n"
                 "  --quick   short windows, one sample each, 3 idle seconds (a smoke run)\n");
}

}  // namespace

int main(int argc, char **argv) {
    bench::Plan plan;
    std::string rows = "1,2,3,4,5", sim = QDQ_BENCH_SIM, daemon = QDQ_BENCH_DAEMON;
    for (int i = 1; i < argc; i++) {
        const bool more = i + 1 < argc;
        if (std::strcmp(argv[i], "--quick") == 0) {
            plan = {true, 0.1, 1, 3.0};
        } else if (std::strcmp(argv[i], "--rows") == 0 && more) {
            rows = argv[++i];
        } else if (std::strcmp(argv[i], "--sim") == 0 && more) {
            sim = argv[++i];
        } else if (std::strcmp(argv[i], "--daemon") == 0 && more) {
            daemon = argv[++i];
        } else {
            usage();
            return 2;
        }
    }
    setenv("QDQUICK_TIME_SCALE", getenv("QDQUICK_TIME_SCALE") ? getenv("QDQUICK_TIME_SCALE") : "1", 1);
    const std::string root = bench::make_root();
    quickevcb_t callbacks{};
    initQdQuick(&callbacks);

    char date[32];
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M", localtime(&now));
    char header[512];
    std::snprintf(header, sizeof header,
                  "qdquick-bench %s: %s; %.1f s windows x %d samples (medians); QDQUICK_TIME_SCALE=%s", date,
                  bench::machine_text().c_str(), plan.window, plan.repeats, getenv("QDQUICK_TIME_SCALE"));

    std::vector<bench::Figure> table;
    int failed = 0;
    auto run = [&](const char *row, auto body) {
        if (std::strstr(rows.c_str(), row) == nullptr) return;
        try {
            for (auto &f : body()) table.push_back(f);
        } catch (const std::exception &e) {
            std::fprintf(stderr, "row %s failed: %s\n", row, e.what());
            failed++;
        }
    };
    run("1", [&] { return bench::local_rows(plan); });
    run("2", [&] { return bench::session_rows(plan, sim); });
    run("3", [&] { return bench::codec_rows(plan); });
    run("4", [&] { return bench::log_rows(plan); });
    run("5", [&] { return bench::footprint_rows(plan, daemon, sim); });
    bench::print_table(table, header);
    std::printf("\nafter the run: %s\n", bench::machine_text().c_str());
    if (getenv("QDQUICK_BENCH_KEEP") != nullptr)  // for looking at the logs afterwards
        std::printf("root kept: %s\n", root.c_str());
    else
        bench::remove_root(root);
    std::fflush(stdout);
    // The library's service threads live as long as the process.
    _exit(failed ? 1 : 0);
}
