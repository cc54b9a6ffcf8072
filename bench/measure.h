// Timing and statistics shared by every row: time-bounded loops, medians
// over repeats taken alternately with the baseline, and the table.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// How long and how often to measure.
struct Plan {
    bool quick = false;
    // Many short samples rather than a few long ones: on a shared machine
    // the median then skips the bursts of other work.
    double window = 0.5;  // seconds per sample
    int repeats = 9;      // samples per figure; medians are reported
    double idle = 60.0;   // seconds of the idle CPU-time window (row 5)
};

// One line of the table. `higher_better` for rates; for times and sizes
// lower is better. The ratio printed is always qdquick's cost divided by the
// baseline's: 1.0 is at the baseline, 4.0 costs four times as much.
struct Figure {
    std::string row, name, unit;
    double ours = 0, base = 0;
    bool higher_better = true;
    std::string baseline;  // what the baseline is, in a few words
};

// Several values measured in one sample (for instance rate, p50, p99).
using Sample = std::vector<double>;

// Runs `ours` and `base` alternately `repeats` times, so that both see the
// same machine load; returns the median of each value of each side.
std::pair<Sample, Sample> alternate(int repeats, const std::function<Sample()> &ours,
                                    const std::function<Sample()> &base);

// Calls `op` in growing batches for about `seconds`; operations per second.
double rate(const std::function<void()> &op, double seconds);

double median(std::vector<double> v);
// The p-th percentile (0..100) of `v` (sorted in place).
double percentile(std::vector<double> &v, double p);

void print_table(const std::vector<Figure> &figures, const std::string &header);

}  // namespace bench
