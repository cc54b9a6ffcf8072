// Test process environment: every test process runs inside a temporary root
// of its own (QDQUICK_ROOT) with a scaled clock, and never writes outside it.
#pragma once

#include <string>

namespace qdq_test {

// The temporary root of this process (exists for the whole run).
const std::string &root();

// root() + rel, for a fixed system path such as "/var/shrcadlog.txt".
std::string in_root(const std::string &fixed);

// Whole content of a file, or "" when it cannot be read.
std::string read_file(const std::string &file);
void write_file(const std::string &file, const std::string &content);

// Descriptors this process holds open, less the library's kept log files.
long open_fds();

// The time scale this process runs with (QDQUICK_TIME_SCALE).
double time_scale();

// How many times slower than natively this process runs: QDQ_TEST_SLOWDOWN,
// which the cross build sets for tests under user-mode emulation; 1 by
// default. Fixed wall-clock time-outs in a test are stretched by it.
double slowdown();

}  // namespace qdq_test
