// Confinement for real: plugins of Right "user" started by the library with
// the real adapter (the real useradd or adduser, the real cpulimit where it
// is installed), as root, inside in_private_etc.sh's private /etc and PID
// namespace. What the kernel shows of the running plugin is checked, and
// plugins that go past their limits must be stopped by the kernel.
#include <gtest/gtest.h>
#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "qdquick/qdplatform.h"
#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

using qdq_test::in_root;
using qdq_test::read_file;

void sh(const std::string &command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

// The value after "<label>" in a /proc file, blanks squeezed.
std::string field(const std::string &file, const std::string &label) {
    std::istringstream in(read_file(file));
    for (std::string l; std::getline(in, l);)
        if (l.rfind(label, 0) == 0) {
            std::istringstream words(l.substr(label.size()));
            std::string out;
            for (std::string w; words >> w;) out += (out.empty() ? "" : " ") + w;
            return out;
        }
    return "";
}

// Waits up to 10 s for a non-empty file.
std::string wait_file(const std::string &file) {
    for (int i = 0; i < 1000 && read_file(file).empty(); ++i) usleep(10000);
    return read_file(file);
}

// The pid of a cpulimit watching `pid`, or 0.
int limiter_of(int pid) {
    DIR *proc = opendir("/proc");
    int found = 0;
    const std::string want = std::string("-p") + '\0' + std::to_string(pid) + '\0';
    while (dirent *e = proc != nullptr ? readdir(proc) : nullptr) {
        std::string cmd = read_file(std::string("/proc/") + e->d_name + "/cmdline");
        if (cmd.find("cpulimit") != std::string::npos && cmd.find(want) != std::string::npos) found = atoi(e->d_name);
    }
    if (proc != nullptr) closedir(proc);
    return found;
}

uid_t uid_of(const std::string &user) {
    const passwd *pw = getpwnam(user.c_str());
    return pw != nullptr ? pw->pw_uid : 0;
}

mode_t mode_of(const std::string &file) {
    struct stat st {};
    lstat(file.c_str(), &st);
    return st.st_mode & 07777;
}

class Confined : public ::testing::Test {
protected:
    void SetUp() override {
        if (getenv("QDQ_PRIVATE_ETC") == nullptr || getuid() != 0)
            GTEST_SKIP() << "needs root and a private /etc (tests/support/in_private_etc.sh)";
    }
    // An installed plugin <s> whose program is a shell script.
    static std::string plugin(const std::string &s, const std::string &body) {
        const std::string d = in_root("/qdconf/CPlugin/" + s);
        sh("mkdir -p '" + d + "/MyPlugin' '" + d + "/Data'");
        qdq_test::write_file(d + "/MyPlugin/prog", "#!/bin/sh\n" + body);
        return d;
    }
    static int run(const std::string &s, int cpu, int vram, int sockets) {
        char entry[] = "MyPlugin/prog";
        return HgCPluginRun(("com.cf." + s).c_str(), "1", "app", entry, cpu, vram, sockets);
    }
};

TEST_F(Confined, RunsAsItsOwnUserWithItsLimitsAndStopsWithTheLimiter) {
    plugin("cfsleep", "exec sleep 60\n");
    ASSERT_EQ(run("cfsleep", 20, 65536, 32), 0);
    const int pid = HgCPluginPid("com.cf.cfsleep");
    ASSERT_GT(pid, 0);
    const uid_t uid = uid_of("cfsleep");
    ASSERT_NE(uid, 0u);
    const std::string ids = std::to_string(uid) + " " + std::to_string(uid) + " " + std::to_string(uid) + " " +
                            std::to_string(uid);
    const std::string status = "/proc/" + std::to_string(pid) + "/status";
    EXPECT_EQ(field(status, "Uid:"), ids);
    EXPECT_EQ(field(status, "Groups:"), std::to_string(getpwnam("cfsleep")->pw_gid));
    const std::string limits = "/proc/" + std::to_string(pid) + "/limits";
    EXPECT_EQ(field(limits, "Max address space"), "67108864 67108864 bytes");
    EXPECT_EQ(field(limits, "Max open files"), "32 32 files");
    int limiter = 0;
    if (access("/usr/bin/cpulimit", X_OK) == 0 || access("/usr/sbin/cpulimit", X_OK) == 0) {
        for (int i = 0; i < 500 && (limiter = limiter_of(pid)) == 0; ++i) usleep(10000);
        EXPECT_GT(limiter, 0) << "no cpulimit -p " << pid;
    }
    EXPECT_EQ(ProcessCPluginStop("com.cf.cfsleep", "1", "app", "prog"), 0);
    EXPECT_EQ(kill(pid, 0), -1);
    if (limiter != 0) {
        EXPECT_EQ(limiter_of(pid), 0);
    }
}

// A plugin named like an account of the system never runs as that account.
TEST_F(Confined, NeverBorrowsAnAccountOfTheSystem) {
    ASSERT_NE(getpwnam("daemon"), nullptr);
    plugin("daemon", "exec sleep 60\n");
    EXPECT_EQ(run("daemon", -1, 0, 0), 0);  // answered as a background start
    EXPECT_EQ(HgCPluginPid("com.cf.daemon"), 0);
    EXPECT_EQ(CreatePluginUser("daemon"), -1);
    EXPECT_EQ(CreatePluginUser("root"), -1);
}

// Past its limits the plugin's own calls fail: the kernel stops it.
TEST_F(Confined, GoingPastALimitFailsInThePlugin) {
    struct {
        const char *s, *body;
        int vram, sockets;
        const char *error;  // what the failing program says
    } cases[] = {
        {"cfmem", "dd if=/dev/zero of=/dev/null bs=200M count=1 2>../Data/err\necho $? >../Data/rc\n", 65536, -1,
         "memory exhausted"},
        {"cffiles",
         "python3 -c 'import os\nfor i in range(64): os.open(\"/dev/null\", os.O_RDONLY)' 2>../Data/err\n"
         "echo $? >../Data/rc\n",
         0, 32, "Too many open files"},
    };
    for (const auto &c : cases) {
        const std::string d = plugin(c.s, c.body);
        ASSERT_EQ(run(c.s, -1, c.vram, c.sockets), 0) << c.s;
        EXPECT_NE(wait_file(d + "/Data/rc"), "0\n") << c.s;
        EXPECT_NE(read_file(d + "/Data/err").find(c.error), std::string::npos) << c.s << ": " << read_file(d + "/Data/err");
    }
    // Unconfined, the same programs succeed: the limits made the difference.
    const std::string d = plugin("cffree", cases[0].body);
    ASSERT_EQ(run("cffree", -1, -1, -1), 0);
    EXPECT_EQ(wait_file(d + "/Data/rc"), "0\n");
}

// The preparation of the user touches the plugin's folders, /var and the
// scratch folder only, and follows no link.
TEST_F(Confined, PreparationStaysInsideThePluginFolders) {
    const std::string outside = in_root("/outside"), here = in_root("/cwd");
    sh("mkdir -p '" + outside + "/data' '" + here + "' && touch '" + outside + "/file' '" + here + "/cfprep' '" + here +
       "/cflink' && chmod 0644 '" + outside + "/file' '" + here + "/cfprep' '" + here + "/cflink'");
    const std::string prep = plugin("cfprep", "exec sleep 60\n");
    sh("touch '" + prep + "/MyPlugin/cfprep' && chmod 0644 '" + prep + "/MyPlugin/cfprep'");
    // A package of links: MyPlugin/<name> and Data point outside.
    const std::string link = plugin("cflink", "exec sleep 60\n");
    sh("rmdir '" + link + "/Data' && ln -s '" + outside + "/data' '" + link + "/Data' && ln -s '" + outside +
       "/file' '" + link + "/MyPlugin/cflink'");
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(here.c_str()), 0);  // the described command ran in the daemon's directory
    EXPECT_EQ(run("cfprep", -1, 0, 0), 0);
    EXPECT_EQ(run("cflink", -1, 0, 0), -1);  // a plugin folder holding links is refused whole
    ASSERT_EQ(chdir(cwd), 0);
    const uid_t uid = uid_of("cfprep");
    struct stat st {};
    ASSERT_EQ(stat((prep + "/Data").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, uid);
    ASSERT_EQ(stat(in_root("/var/CPlugin/cfprep/Temp").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, uid);
    EXPECT_EQ(mode_of(in_root("/var/CPlugin/cfprep/Temp")), 0777u);
    EXPECT_EQ(mode_of(prep + "/MyPlugin/cfprep"), 0777u);  // the operand, inside MyPlugin
    EXPECT_EQ(mode_of(here + "/cfprep"), 0644u);
    EXPECT_EQ(mode_of(here + "/cflink"), 0644u);
    EXPECT_EQ(mode_of(outside + "/file"), 0644u);
    ASSERT_EQ(stat((outside + "/data").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(mode_of(in_root("/var")) & 0022, 0u) << "/var writable for others";
    EXPECT_EQ(mode_of(in_root("/var")) & 0001, 1u) << "/var not searchable";
    EXPECT_GT(HgCPluginStopAll(), 0);
    EXPECT_EQ(HgCPluginPid("com.cf.cfprep"), 0);
}

}  // namespace
