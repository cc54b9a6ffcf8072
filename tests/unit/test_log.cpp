// The log line format, the size limit at its exact boundary, files changed
// from outside between lines, an unwritable path that must not hang, and
// concurrent writers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include <cctype>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/log.h"
#include "test_env.h"

namespace {

std::string logfile(const char *name) { return qdq_test::in_root(std::string("/var/") + name); }

// Every line starts with its time stamp and separator: "Mar 05 2024 14:07:09 : ".
// (No std::regex: g++ 12 warns inside it under the sanitizers.)
bool stamped(const std::string &line) {
    const std::string shape = "Aaa 00 0000 00:00:00 : ";  // A: upper case, a: lower case, 0: digit
    bool ok = line.size() >= shape.size();
    for (size_t i = 0; ok && i < shape.size(); ++i) {
        const unsigned char c = line[i], s = shape[i];
        ok = s == 'A' ? std::isupper(c) : s == 'a' ? std::islower(c) : s == '0' ? std::isdigit(c) : c == s;
    }
    return ok;
}

// Descriptors of this process still open on a removed file.
int removed_files_held() {
    int n = 0;
    for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        const std::string target = std::filesystem::read_symlink(fd.path(), ec).native();
        n += target.size() > 10 && target.compare(target.size() - 10, 10, " (deleted)") == 0;
    }
    return n;
}

class LogTest : public ::testing::Test {
protected:
    void TearDown() override { gQuickLogSize = 2048; }
};

TEST_F(LogTest, LineFormatNewlineKeptAndLongMessageCutTo9998Characters) {
    AppMgrLogLine("/var/fmt.txt", "abc\n");
    AppMgrLogLine("/var/fmt.txt", "n=%d s=%s", 7, "x");
    AppMgrLogLine("/var/fmt.txt", "%s", std::string(20000, 'q').c_str());
    const std::string all = qdq_test::read_file(logfile("fmt.txt"));
    ASSERT_TRUE(!all.empty() && all.back() == '\n');
    std::istringstream text(all);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(stamped(lines[0])) << lines[0];
    EXPECT_EQ(lines[0].substr(20), " : abc");
    EXPECT_EQ(lines[1], "");
    EXPECT_EQ(lines[2].substr(20), " : n=7 s=x");
    EXPECT_EQ(lines[3].size(), 23u + 9998);  // 9998 of the 20000 characters
}

TEST_F(LogTest, SizeLimitAtExactBoundary) {
    struct Case { size_t existing; int limit; bool emptied; };
    for (const Case &c : {Case{2097152, 2048, true},   // exactly 2048 KiB: emptied first
                          {2097151, 2048, false},       // one byte short: appended
                          {4096, 4, true}, {4095, 4, false},
                          {5000000, 0, false}, {5000000, -1, false}}) {  // limit off
        SCOPED_TRACE(std::to_string(c.existing) + " bytes, limit " + std::to_string(c.limit));
        qdq_test::write_file(logfile("limit.txt"), std::string(c.existing, 'x'));
        gQuickLogSize = c.limit;
        AppMgrLogLine("/var/limit.txt", "next");
        std::string text = qdq_test::read_file(logfile("limit.txt"));
        if (c.emptied) {
            EXPECT_TRUE(stamped(text)) << text.substr(0, 80);
            EXPECT_EQ(text.substr(20), " : next\n");
        } else {
            EXPECT_EQ(text.substr(0, c.existing), std::string(c.existing, 'x'));
            EXPECT_EQ(text.substr(c.existing + 20), " : next\n");
        }
    }
}

// A file removed, renamed, replaced or emptied from outside is followed on
// the very next line: no descriptor kept from an earlier line may write
// into the old file or at its old offset.
TEST_F(LogTest, FileChangedFromOutsideIsFollowedOnTheNextLine) {
    const std::string file = logfile("outside.txt"), moved = logfile("outside.old");
    struct Case {
        const char *change;
        void (*apply)(const std::string &file, const std::string &moved);
        const char *moved_keeps;  // what the file moved away holds afterwards, if any
    };
    const Case cases[] = {
        {"removed", [](const std::string &f, const std::string &) { ::remove(f.c_str()); }, nullptr},
        {"renamed away", [](const std::string &f, const std::string &m) { ::rename(f.c_str(), m.c_str()); },
         " : first\n"},
        {"replaced", [](const std::string &f, const std::string &m) {
             qdq_test::write_file(m, "");
             ::rename(m.c_str(), f.c_str());
         }, nullptr},
        {"emptied", [](const std::string &f, const std::string &) { ::truncate(f.c_str(), 0); }, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.change);
        ::remove(file.c_str());
        ::remove(moved.c_str());
        AppMgrLogLine("/var/outside.txt", "first");
        c.apply(file, moved);
        AppMgrLogLine("/var/outside.txt", "second");
        const std::string text = qdq_test::read_file(file);
        EXPECT_TRUE(stamped(text)) << text;
        EXPECT_EQ(text.substr(20), " : second\n");
        if (c.moved_keeps != nullptr) {
            EXPECT_EQ(qdq_test::read_file(moved).substr(20), c.moved_keeps);
        }
        EXPECT_EQ(removed_files_held(), 0) << "a removed log's space stays held";
    }
}

// A log path replaced by a link (to a file its owner chose) is not written
// through: the line is reported lost instead.
TEST_F(LogTest, LinkAtTheLogPathIsNotFollowed) {
    const std::string file = logfile("linked.txt"), target = logfile("target.txt");
    AppMgrLogLine("/var/linked.txt", "first");
    qdq_test::write_file(target, "");
    ::remove(file.c_str());
    ASSERT_EQ(::symlink(target.c_str(), file.c_str()), 0);
    AppMgrLogLine("/var/linked.txt", "second");
    EXPECT_EQ(qdq_test::read_file(target), "");
    EXPECT_NE(qdq_test::read_file(logfile("shrcadlog.txt")).find(" : open log file failed!\n"), std::string::npos);
    ::remove(file.c_str());
}

// A host running with standard input closed that later reopens it must not
// take over a log's kept descriptor.
TEST_F(LogTest, StandardStreamReopenedByTheHostLeavesTheLogAlone) {
    const int saved = dup(0);
    ASSERT_GE(saved, 0);
    close(0);
    AppMgrLogLine("/var/stdio.txt", "first");
    dup2(saved, 0);
    close(saved);
    AppMgrLogLine("/var/stdio.txt", "second");
    EXPECT_NE(qdq_test::read_file(logfile("stdio.txt")).find(" : second\n"), std::string::npos);
}

TEST_F(LogTest, UnwritablePathReportsOnMainLogWithoutHanging) {
    ::remove(logfile("shrcadlog.txt").c_str());
    // A directory cannot be opened for appending.
    mkdir(logfile("adir").c_str(), 0755);
    AppMgrLogLine("/var/adir", "lost");
    EXPECT_NE(qdq_test::read_file(logfile("shrcadlog.txt")).find(" : open log file failed!\n"),
              std::string::npos);
    // The main log itself unwritable: the report is dropped, no recursion.
    ::remove(logfile("shrcadlog.txt").c_str());
    mkdir(logfile("shrcadlog.txt").c_str(), 0755);
    AppMgrLogLine(qdq::kLogMain, "dropped");
    AppMgrLogLine("/var/adir", "lost again");
    rmdir(logfile("shrcadlog.txt").c_str());
    // The lock was released every time: a normal line still gets through.
    AppMgrLogLine("/var/after.txt", "after");
    EXPECT_NE(qdq_test::read_file(logfile("after.txt")).find(" : after\n"), std::string::npos);
}

TEST_F(LogTest, ConcurrentWritersNeverMixLines) {
    const int kThreads = 4, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            std::string body(200, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) AppMgrLogLine("/var/mt.txt", "%d:%s", t, body.c_str());
        });
    for (auto &th : threads) th.join();
    std::string text = qdq_test::read_file(logfile("mt.txt"));
    ASSERT_TRUE(!text.empty() && text.back() == '\n');
    std::istringstream lines(text);
    int count[kThreads] = {};
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(stamped(line)) << line.substr(0, 80);
        const int writer = line[23] - '0';
        ASSERT_TRUE(writer >= 0 && writer < kThreads) << line.substr(0, 80);
        ASSERT_EQ(line.substr(23), std::to_string(writer) + ":" + std::string(200, static_cast<char>('a' + writer)));
        ++count[writer];
    }
    for (int n : count) EXPECT_EQ(n, kLines);
}

}  // namespace
