#include "measure.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench {

std::pair<Sample, Sample> alternate(int repeats, const std::function<Sample()> &ours,
                                    const std::function<Sample()> &base) {
    std::vector<Sample> a, b;
    for (int i = 0; i < repeats; i++) {
        // Swap the order every round: neither side always runs on a warm cache.
        if (i % 2 == 0) {
            a.push_back(ours());
            b.push_back(base());
        } else {
            b.push_back(base());
            a.push_back(ours());
        }
    }
    auto medians = [](const std::vector<Sample> &samples) {
        Sample m(samples.front().size());
        for (size_t k = 0; k < m.size(); k++) {
            std::vector<double> column;
            for (const Sample &s : samples) column.push_back(s[k]);
            m[k] = median(column);
        }
        return m;
    };
    return {medians(a), medians(b)};
}

double rate(const std::function<void()> &op, double seconds) {
    long done = 0, batch = 1;
    const auto t0 = Clock::now();
    double elapsed = 0;
    while (elapsed < seconds) {
        for (long i = 0; i < batch; i++) op();
        done += batch;
        elapsed = seconds_since(t0);
        // Read the clock about a hundred times per window, whatever an
        // operation costs.
        if (elapsed * 100 < seconds) batch *= 2;
    }
    return done / elapsed;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double percentile(std::vector<double> &v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(std::ceil(p / 100 * v.size()));
    return v[i == 0 ? 0 : std::min(i - 1, v.size() - 1)];
}

namespace {

std::string number(double v) {
    char text[32];
    double a = std::fabs(v);
    if (a >= 1000)
        std::snprintf(text, sizeof text, "%.0f", v);
    else if (a >= 100)
        std::snprintf(text, sizeof text, "%.1f", v);
    else if (a >= 1)
        std::snprintf(text, sizeof text, "%.2f", v);
    else
        std::snprintf(text, sizeof text, "%.3f", v);
    return text;
}

}  // namespace

void print_table(const std::vector<Figure> &figures, const std::string &header) {
    std::printf("%s\n\n", header.c_str());
    std::printf("| # | figure | qdquick | baseline | cost ratio | baseline is |\n");
    std::printf("|---|---|---:|---:|---:|---|\n");
    // A count whose baseline is zero by nature (log lines of a bare echo,
    // failures) has no ratio: it goes below the table as a note.
    std::vector<const Figure *> notes;
    for (const Figure &f : figures) {
        if (f.ours <= 0 || f.base <= 0) {
            notes.push_back(&f);
            continue;
        }
        const double ratio = f.higher_better ? f.base / f.ours : f.ours / f.base;
        std::printf("| %s | %s | %s %s | %s %s | %s | %s |\n", f.row.c_str(), f.name.c_str(),
                    number(f.ours).c_str(), f.unit.c_str(), number(f.base).c_str(), f.unit.c_str(),
                    number(ratio).c_str(), f.baseline.c_str());
    }
    if (!notes.empty()) std::printf("\nNo ratio (a zero on one side):\n");
    for (const Figure *f : notes)
        std::printf("- row %s, %s: qdquick %s%s, baseline %s%s (%s)\n", f->row.c_str(), f->name.c_str(),
                    number(f->ours).c_str(), f->unit.c_str(), number(f->base).c_str(), f->unit.c_str(),
                    f->baseline.c_str());
    std::fflush(stdout);
}

}  // namespace bench
