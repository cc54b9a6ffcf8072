// Shell commands: output readers, zombie-free runs, delayed runs and the
// coalescing of wireless reloads. Commands leave markers in the test root.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform_double.h"
#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

using Clock = std::chrono::steady_clock;
using Secs = std::chrono::duration<double>;
// asyncSystem's caller waits three scaled seconds for the worker to start;
// at 0.01 that is 30 ms, which a loaded machine can miss. Set before main.
const bool g_scale_set = setenv("QDQUICK_TIME_SCALE", "0.05", 0) == 0;

bool exists(const std::string &file) { return access(file.c_str(), F_OK) == 0; }
void settle(double s) { std::this_thread::sleep_for(Secs(s)); }
double scaled(double s) { return s * qdq_test::time_scale(); }
bool wait_for(const std::string &file, double seconds = 5) {
    for (int i = 0; i < seconds * 200 && !exists(file); ++i) settle(0.005);
    return exists(file);
}

// A fresh marker path, and a command appending "run" to it; `tag` rides
// along as a shell comment, which is how a wireless reload is spotted.
std::string marker(const char *name) {
    std::string file = qdq_test::in_root(std::string("/tmp/") + name);
    unlink(file.c_str());
    return file;
}
std::string cmd(const std::string &file, const char *tag = "") { return "echo run >> '" + file + "' # " + tag; }

class Exec : public ::testing::Test {
protected:
    void SetUp() override { qdq_test::platform().reset(); }
    void TearDown() override { signal(SIGCHLD, SIG_DFL); }  // safeSystem's is process-wide
    size_t uci_reads() { return qdq_test::platform().calls_named("getUciOptionValue system switch wlan").size(); }
};

TEST_F(Exec, OutputReaders) {
    char line[256] = "untouched", word[260];
    EXPECT_EQ(chk_cmd_res(nullptr, "x", line), 1);
    EXPECT_EQ(chk_cmd_res("printf 'a\\nb\\n'", "needle", line), 0);
    EXPECT_STREQ(line, "untouched");
    EXPECT_EQ(chk_cmd_res("printf 'a\\nthe needle\\nb\\n'", "needle", line), 1);
    EXPECT_STREQ(line, "the needle\n");
    std::fill(word, word + sizeof word, 'Z');
    get_cmd_res("printf '%0400d' 0", word);  // cut to fit out_word
    EXPECT_EQ(std::string(word), std::string(255, '0'));
}

TEST_F(Exec, SafeSystemLeavesNoZombies) {
    std::string file = marker("safe");
    safeSystem(cmd(file).c_str());
    EXPECT_EQ(qdq_test::read_file(file), "run\n");
    pid_t child = fork();  // any later child is reaped by the kernel
    if (child == 0) _exit(0);
    std::string proc = "/proc/" + std::to_string(child);
    for (int i = 0; i < 1000 && exists(proc); ++i) settle(0.005);
    EXPECT_FALSE(exists(proc)) << "zombie left";
    dumpmapsinfo();
    std::string maps = qdq_test::in_root("/var/quickinstall_" + std::to_string(getpid()) + ".txt");
    EXPECT_NE(qdq_test::read_file(maps).find("[stack]"), std::string::npos);
}

TEST_F(Exec, AsyncDelaysAndCuts) {
    std::string later = marker("later"), now = marker("now"), cut = marker("cut");
    ASSERT_EQ(asyncSystem(cmd(later).c_str(), 10), 1);
    settle(scaled(2));
    EXPECT_FALSE(exists(later)) << "delay not honoured";
    EXPECT_TRUE(wait_for(later));
    auto start = Clock::now();  // 200 does not fit the 8-bit delay: no wait
    ASSERT_EQ(asyncSystem(cmd(now).c_str(), 200), 1);
    ASSERT_TRUE(wait_for(now, scaled(100)));
    EXPECT_LT(Clock::now() - start, Secs(scaled(100)));
    // 300 characters run as the first 255: echo prints what is left.
    std::string prefix = "echo >'" + cut + "' ";
    ASSERT_EQ(asyncSystem((prefix + std::string(300 - prefix.size(), 'x')).c_str(), 0), 1);
    ASSERT_TRUE(wait_for(cut));
    settle(0.05);
    EXPECT_EQ(qdq_test::read_file(cut), std::string(255 - prefix.size(), 'x') + "\n");
    EXPECT_EQ(uci_reads(), 0u);
}

// More delayed commands at once than there are command workers: every one
// is taken, waits in the queue behind the busy workers, and runs.
TEST_F(Exec, MoreDelayedCommandsThanWorkersAllRun) {
    std::vector<std::string> files;
    for (int i = 0; i < 12; ++i) {
        files.push_back(marker(("many" + std::to_string(i)).c_str()));
        EXPECT_EQ(asyncSystem(cmd(files.back()).c_str(), 4), 1) << i;
    }
    for (const std::string &file : files) EXPECT_TRUE(wait_for(file, 20)) << file;
}

TEST_F(Exec, WlanReloadsCoalesce) {
    std::string first = marker("wlan1"), second = marker("wlan2"), third = marker("wlan3");
    ASSERT_EQ(asyncSystem(cmd(first, "/etc/init.d/wlan restart").c_str(), 10), 1);
    auto start = Clock::now();
    EXPECT_EQ(asyncSystem(cmd(second, "/etc/init.d/wlan restart").c_str(), 10), 0);
    EXPECT_GE(Clock::now() - start, Secs(scaled(2.5)));
    ASSERT_TRUE(wait_for(first));
    EXPECT_EQ(uci_reads(), 1u);
    // Settled: taken again. Due 5 from now, later than the refused one
    // would have been (2.5 after the first).
    ASSERT_EQ(asyncSystem(cmd(third, "/etc/init.d/wlan").c_str(), 5), 1);
    EXPECT_TRUE(wait_for(third));
    EXPECT_FALSE(exists(second));
    EXPECT_EQ(qdq_test::read_file(first), "run\n");
}

TEST_F(Exec, WlanSwitchedOffRunsNothing) {
    qdq_test::platform().uci_value = "0";
    std::string off = marker("off"), plain = marker("plain");
    ASSERT_EQ(asyncSystem(cmd(off, "/etc/init.d/wlan").c_str(), 5), 1);
    for (int i = 0; i < 1000 && uci_reads() == 0; ++i) settle(0.005);
    ASSERT_EQ(asyncSystem(cmd(plain).c_str(), 4), 1);  // the read settled the reload
    EXPECT_TRUE(wait_for(plain));
    EXPECT_FALSE(exists(off));  // it would have run right after the read
    EXPECT_EQ(uci_reads(), 1u);
}

}  // namespace
