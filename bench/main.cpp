// qdquick-bench: prints one table of where the library stands against
// baselines measured in the same run. Each row runs in a child process of
// its own (a fresh library, no service threads left over from another
// row); the parent collects their figures and prints the table. Runs at
// QDQUICK_TIME_SCALE=1 unless told otherwise; binds the fixed ports 18401
// and 18998, so run it in a private network namespace (scripts/bench.sh
// does).
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <sstream>
#include <string>

#include "env.h"
#include "proc.h"
#include "rows.h"

namespace {

void usage() {
    std::fprintf(stderr,
                 "usage: qdquick-bench [--quick] [--rows 1,2,3,4,5] [--sim PATH] [--daemon PATH]\n"
                 "  --quick   short windows, one sample each, 1 idle second (a smoke run)\n");
}

// A figure as one line between the row's process and the parent.
void emit(const bench::Figure &f) {
    std::printf("FIG\t%s\t%s\t%s\t%.17g\t%.17g\t%d\t%s\n", f.row.c_str(), f.name.c_str(), f.unit.c_str(), f.ours,
                f.base, f.higher_better ? 1 : 0, f.baseline.c_str());
}

bool parse(const std::string &line, bench::Figure &f) {
    std::istringstream in(line);
    std::string tag, ours, base, higher;
    if (!std::getline(in, tag, '\t') || tag != "FIG") return false;
    std::getline(in, f.row, '\t');
    std::getline(in, f.name, '\t');
    std::getline(in, f.unit, '\t');
    std::getline(in, ours, '\t');
    std::getline(in, base, '\t');
    std::getline(in, higher, '\t');
    std::getline(in, f.baseline);
    f.ours = std::atof(ours.c_str());
    f.base = std::atof(base.c_str());
    f.higher_better = higher == "1";
    return true;
}

// The child's side: one row, its figures on standard output.
int run_row(char row, const bench::Plan &plan, const std::string &sim, const std::string &daemon) {
    const std::string root = bench::make_root();
    int rc = 0;
    try {
        std::vector<bench::Figure> figures;
        switch (row) {
        case '1': figures = bench::local_rows(plan); break;
        case '2': figures = bench::session_rows(plan, sim); break;
        case '3': figures = bench::codec_rows(plan); break;
        case '4': figures = bench::log_rows(plan); break;
        case '5': figures = bench::footprint_rows(plan, daemon, sim); break;
        default: throw std::runtime_error("no such row");
        }
        for (const auto &f : figures) emit(f);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "row %c failed: %s\n", row, e.what());
        rc = 1;
    }
    if (getenv("QDQUICK_BENCH_KEEP") != nullptr)  // to look at the logs afterwards
        std::fprintf(stderr, "row %c root kept: %s\n", row, root.c_str());
    else
        bench::remove_root(root);
    std::fflush(stdout);
    // Library service threads live as long as the process: no exit handlers.
    _exit(rc);
}

}  // namespace

int main(int argc, char **argv) {
    bench::Plan plan;
    std::string rows = "1,2,3,4,5", sim = QDQ_BENCH_SIM, daemon = QDQ_BENCH_DAEMON;
    char row = 0;
    for (int i = 1; i < argc; i++) {
        const bool more = i + 1 < argc;
        if (std::strcmp(argv[i], "--quick") == 0) {
            plan = {true, 0.1, 1, 1.0};
        } else if (std::strcmp(argv[i], "--rows") == 0 && more) {
            rows = argv[++i];
        } else if (std::strcmp(argv[i], "--sim") == 0 && more) {
            sim = argv[++i];
        } else if (std::strcmp(argv[i], "--daemon") == 0 && more) {
            daemon = argv[++i];
        } else if (std::strcmp(argv[i], "--row") == 0 && more) {  // internal: a row's process
            row = argv[++i][0];
        } else if (std::strcmp(argv[i], "--floor") == 0) {  // internal: row 5's bare process
            return bench::run_floor_process();
        } else {
            usage();
            return 2;
        }
    }
    setenv("QDQUICK_TIME_SCALE", getenv("QDQUICK_TIME_SCALE") ? getenv("QDQUICK_TIME_SCALE") : "1", 1);
    if (row != 0) return run_row(row, plan, sim, daemon);

    char self[PATH_MAX] = "";
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) return 1;
    char date[32];
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M", localtime(&now));
    char header[512];
    std::snprintf(header, sizeof header,
                  "qdquick-bench %s: %s; %.1f s windows x %d samples (medians); QDQUICK_TIME_SCALE=%s", date,
                  bench::machine_text().c_str(), plan.window, plan.repeats, getenv("QDQUICK_TIME_SCALE"));

    std::vector<bench::Figure> table;
    int failed = 0;
    // Row 5 first: its simulator binds fixed ports inside the ephemeral
    // range (60001...), which the other rows' closed TCP connections would
    // hold in TIME_WAIT for a minute. The table is printed in row order.
    for (char r : std::string("51234")) {
        if (rows.find(r) == std::string::npos) continue;
        std::vector<std::string> args = {self, "--row", std::string(1, r), "--sim", sim, "--daemon", daemon};
        if (plan.quick) args.push_back("--quick");
        bench::Child child(args);
        std::string output;
        if (child.finish(output) != 0) failed++;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            bench::Figure f;
            if (parse(line, f))
                table.push_back(f);
            else
                std::fprintf(stderr, "%s\n", line.c_str());
        }
    }
    std::stable_sort(table.begin(), table.end(),
                     [](const bench::Figure &a, const bench::Figure &b) { return a.row < b.row; });
    bench::print_table(table, header);
    std::printf("\nafter the run: %s\n", bench::machine_text().c_str());
    return failed ? 1 : 0;
}
