// main() of every unit test program: creates a private root with the fixed
// directories the library writes to, and scales the clock (0.01 unless the
// environment says otherwise) before any library call reads either.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "test_env.h"

namespace qdq_test {
namespace {
std::string g_root;
double env_number(const char *name, double fallback) { return getenv(name) ? atof(getenv(name)) : fallback; }
}  // namespace

const std::string &root() { return g_root; }
std::string in_root(const std::string &fixed) { return g_root + fixed; }

std::string read_file(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &file, const std::string &content) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
}

// The library keeps one descriptor per log file (regular files directly in
// the root's /var), opened by whichever line came first; a scenario that
// logs a first line must not count it as a leak. Sockets, pipes and every
// other file still count.
long open_fds() {
    const std::filesystem::path logs = in_root("/var");
    long n = 0;
    for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        const std::filesystem::path target = std::filesystem::read_symlink(fd.path(), ec);
        n += ec || target.parent_path() != logs || !std::filesystem::is_regular_file(fd.path(), ec);
    }
    return n;
}

double time_scale() { return env_number("QDQUICK_TIME_SCALE", 1.0); }
double slowdown() { return std::max(1.0, env_number("QDQ_TEST_SLOWDOWN", 1.0)); }

}  // namespace qdq_test

int main(int argc, char **argv) {
    char tmpl[] = "/tmp/qdquick-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        return 2;
    }
    qdq_test::g_root = tmpl;
    for (const char *d : {"/var", "/qdconf", "/etc", "/etc/config", "/etc/config/system", "/tmp"})
        mkdir((qdq_test::g_root + d).c_str(), 0755);
    setenv("QDQUICK_ROOT", tmpl, 1);
    setenv("QDQUICK_TIME_SCALE", "0.01", 0);
    ::testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    if (getenv("QDQUICK_KEEP_ROOT") == nullptr) {
        std::string cmd = "rm -rf '" + qdq_test::g_root + "'";
        // system() reports -1 when the library left SIGCHLD ignored: judge
        // by what is left.
        if (system(cmd.c_str()) != 0 && access(tmpl, F_OK) == 0) fprintf(stderr, "could not remove %s\n", tmpl);
    }
    return rc;
}
