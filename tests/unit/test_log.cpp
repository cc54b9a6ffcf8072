// The log line format, the size limit at its exact boundary, an unwritable
// path that must not hang, and concurrent writers.
#include <gtest/gtest.h>
#include <cctype>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include "common/log.h"
#include "test_env.h"

namespace {

std::string logfile(const char *name) { return qdq_test::in_root(std::string("/var/") + name); }

// "Mar 05 2024 14:07:09 : " - the time stamp and separator of every line.
bool has_stamp(const std::string &line) {
    if (line.size() < 23) return false;
    const char *shape = "Aaa 00 0000 00:00:00 : ";
    for (size_t i = 0; i < 23; ++i) {
        char c = line[i], s = shape[i];
        bool ok = s == 'A' ? std::isupper(static_cast<unsigned char>(c))
                  : s == 'a' ? std::islower(static_cast<unsigned char>(c))
                  : s == '0' ? std::isdigit(static_cast<unsigned char>(c))
                             : c == s;
        if (!ok) return false;
    }
    return true;
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { gQuickLogSize = 2048; }
    void TearDown() override { gQuickLogSize = 2048; }
};

TEST_F(LogTest, LineFormatAndNewlineKept) {
    AppMgrLogLine("/var/fmt.txt", "abc\n");
    AppMgrLogLine("/var/fmt.txt", "n=%d s=%s", 7, "x");
    std::string text = qdq_test::read_file(logfile("fmt.txt"));
    ASSERT_TRUE(has_stamp(text)) << text;
    EXPECT_NE(text.find(" : abc\n\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" : n=7 s=x\n"), std::string::npos) << text;
    EXPECT_EQ(text.back(), '\n');
}

TEST_F(LogTest, LongMessageIsCutTo9998Characters) {
    std::string big(20000, 'q');
    AppMgrLogLine("/var/long.txt", "%s", big.c_str());
    std::string text = qdq_test::read_file(logfile("long.txt"));
    size_t start = text.find(" : ") + 3;
    EXPECT_EQ(text.size() - start - 1, 9998u);
}

TEST_F(LogTest, SizeLimitAtExactBoundary) {
    struct Case {
        size_t existing;
        int limit;
        bool emptied;
    } cases[] = {
        {2097152, 2048, true},   // exactly 2048 KiB: emptied first
        {2097151, 2048, false},  // one byte short: appended
        {4096, 4, true},
        {4095, 4, false},
        {5000000, 0, false},     // limit off
        {5000000, -1, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.existing) + " bytes, limit " + std::to_string(c.limit));
        qdq_test::write_file(logfile("limit.txt"), std::string(c.existing, 'x'));
        gQuickLogSize = c.limit;
        AppMgrLogLine("/var/limit.txt", "next");
        std::string text = qdq_test::read_file(logfile("limit.txt"));
        if (c.emptied) {
            EXPECT_LT(text.size(), 100u);
            EXPECT_NE(text.find(" : next\n"), std::string::npos);
        } else {
            EXPECT_GT(text.size(), c.existing);
            EXPECT_EQ(text.compare(0, 3, "xxx"), 0);
        }
    }
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
    size_t pos = 0, count = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        ASSERT_NE(nl, std::string::npos);
        std::string line = text.substr(pos, nl - pos);
        ASSERT_TRUE(has_stamp(line) && line.size() == 23 + 2 + 200 && line[24] == ':') << line.substr(0, 80);
        int writer = line[23] - '0';
        ASSERT_TRUE(writer >= 0 && writer < kThreads) << line.substr(0, 80);
        EXPECT_EQ(line.substr(25), std::string(200, static_cast<char>('a' + writer)));
        ++count;
        pos = nl + 1;
    }
    EXPECT_EQ(count, static_cast<size_t>(kThreads * kLines));
}

}  // namespace
