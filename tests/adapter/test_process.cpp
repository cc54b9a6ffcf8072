// RunSystemCmd and stoppid of the real adapter, with real child processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "qdquick/qdplatform.h"
#include "test_env.h"

using qdq_test::in_root;
using qdq_test::read_file;

namespace {

using qdq_test::open_fds;

TEST(RunSystemCmd, PassesWordsVerbatimReturnsStatusRedirectsAndLeaksNoDescriptor) {
    const long before = open_fds();
    const std::string arg = in_root("/tmp/arg.txt");
    const char *word = "a; touch pwned $HOME `id` 'q' \"d\" *";  // no shell sees it
    ASSERT_EQ(RunSystemCmd(nullptr, "/bin/sh", "-c", "printf %s \"$1\" > \"$2\"", "sh", word, arg.c_str(), ""), 0);
    EXPECT_EQ(read_file(arg), word);
    EXPECT_EQ(RunSystemCmd(nullptr, "true", ""), 0);  // found on PATH
    EXPECT_EQ(RunSystemCmd(nullptr, "/bin/sh", "-c", "exit 7", ""), 7);
    EXPECT_EQ(RunSystemCmd(nullptr, "/bin/sh", "-c", "kill -9 $$", ""), -1);
    EXPECT_EQ(RunSystemCmd(nullptr, "/nonexistent/prog", ""), -1);
    EXPECT_EQ(RunSystemCmd(nullptr, ""), -1);
    EXPECT_EQ(RunSystemCmd("/nodir/out.txt", "true", ""), -1);
    // Standard output goes to the file under the root, truncated first.
    ASSERT_EQ(RunSystemCmd("/tmp/out.txt", "/bin/echo", "hello world", ""), 0);
    ASSERT_EQ(RunSystemCmd("/tmp/out.txt", "/bin/echo", "again", ""), 0);
    EXPECT_EQ(read_file(in_root("/tmp/out.txt")), "again\n");
    EXPECT_EQ(open_fds(), before);
}

TEST(RunSystemCmd, WaitsForTheChildWhenSigchldIsIgnored) {
    struct sigaction ign {}, old {};
    ign.sa_handler = SIG_IGN;
    ign.sa_flags = SA_NOCLDWAIT;
    sigemptyset(&ign.sa_mask);
    ASSERT_EQ(sigaction(SIGCHLD, &ign, &old), 0);
    const std::string out = in_root("/tmp/late.txt");
    int rc = RunSystemCmd(nullptr, "/bin/sh", "-c", "sleep 0.2; echo done > \"$1\"", "sh",
                          out.c_str(), "");
    std::string seen = read_file(out);
    sigaction(SIGCHLD, &old, nullptr);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(seen, "done\n") << "returned before the child ended";
}

// Starts a copy of sleep under a unique name and waits until it runs as such.
pid_t start_named_sleep(const std::string &name) {
    const std::string bin = in_root("/tmp/") + name;
    if (RunSystemCmd(nullptr, "cp", "/bin/sleep", bin.c_str(), "") != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        execl(bin.c_str(), bin.c_str(), "30", static_cast<char *>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 500; ++i) {
        std::string cmd = read_file("/proc/" + std::to_string(pid) + "/cmdline");
        if (cmd.rfind(bin, 0) == 0) return pid;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return pid;
}

TEST(Stoppid, SignalsProcessesByShortAndLongName) {
    for (std::string name : {"qs" + std::to_string(getpid()),  // fits comm
                             "qdp_long_sleeper_name_" + std::to_string(getpid())}) {
        pid_t pid = start_named_sleep(name);
        ASSERT_GT(pid, 0);
        EXPECT_EQ(stoppid(name.c_str(), "/var/stopcplugin", SIGTERM), 1) << name;
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << name;
        EXPECT_EQ(stoppid(name.c_str(), nullptr, SIGTERM), 0) << "nothing left to stop";
    }
    EXPECT_EQ(stoppid(nullptr, nullptr, SIGTERM), -1);
    EXPECT_EQ(stoppid("", nullptr, SIGTERM), -1);
    EXPECT_EQ(stoppid("x", nullptr, 0), -1);
}

TEST(Stoppid, NeverSignalsItself) {
    const std::string name = "qself" + std::to_string(getpid());
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_NAME, name.c_str());
        _exit(stoppid(name.c_str(), nullptr, SIGKILL) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
