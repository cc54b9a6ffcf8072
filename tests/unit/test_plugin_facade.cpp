// Plugin facade: the descriptor reader, the package header check, the plugin
// list, the OSGi cache reset and the plugin process log.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform_double.h"
#include "plugin/descriptor.h"
#include "plugin/package_check.h"
#include "plugin/plugin_log.h"
#include "qdquick/qdquick.h"
#include "test_env.h"

namespace {

using qdq::plugin::DescResult;

DescResult read(const std::string &text, cplugininstinfo &rec) {
    FILE *in = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    DescResult r = qdq::plugin::read_descriptor(in, rec);
    fclose(in);
    return r;
}

TEST(PluginFacade, DescriptorRules) {
    cplugininstinfo rec{};
    snprintf(rec.name, sizeof rec.name, "com.a.b");
    std::string long_entry(300, 'e');
    // KernelVersion is never a version line; "EntryFile: Typer" is a Type line
    // (the first key word found anywhere wins); values are cut to their fields.
    EXPECT_EQ(read("KernelVersion: 5.10.0-very-long-kernel-version-text\nName:com.a.b x\nVersion:  2.5 \n"
                   "EntryFile: Typer\nRight: user\nCpu: 30\nVirtualRam:x\nEntryFile: " +
                       long_entry + "\n",
                   rec),
              DescResult::Ok);
    EXPECT_STREQ(rec.version, "2.5");
    EXPECT_STREQ(rec.kernelversion, "5.10.0-very-long-kernel-version");
    EXPECT_STREQ(rec.type, "Typer");
    EXPECT_EQ(std::string(rec.entryfile), long_entry.substr(0, 127));
    EXPECT_EQ(rec.cpu, 30);
    EXPECT_EQ(rec.virtualram, 0);
    EXPECT_EQ(read("Version: 2.6\n", rec), DescResult::VersionMismatch);
}

// The descriptor file of a package is read only when it is a regular file
// of bounded size: a link to /dev/zero would spin for ever, a FIFO block.
TEST(PluginFacade, DescriptorFileMustBeASmallRegularFile) {
    const std::string dir = qdq_test::in_root("/tmp/desc/");
    ASSERT_EQ(system(("mkdir -p '" + dir + "folder' && ln -sf /dev/zero '" + dir + "zero' && mkfifo '" + dir + "fifo'")
                         .c_str()),
              0);
    qdq_test::write_file(dir + "good", "Name: com.a.b\nVersion: 1\n");
    qdq_test::write_file(dir + "nameless", "Version: 1\nType: app\n");
    qdq_test::write_file(dir + "huge", "Name: com.a.b\n" + std::string(qdq::plugin::kMaxDescriptor, '#'));
    ASSERT_EQ(system(("ln -sf good '" + dir + "link'").c_str()), 0);
    struct {
        const char *file;
        DescResult want;
    } cases[] = {
        {"good", DescResult::Ok},          {"nameless", DescResult::NoName},  {"zero", DescResult::Unreadable},
        {"fifo", DescResult::Unreadable},  {"folder", DescResult::Unreadable}, {"huge", DescResult::Unreadable},
        {"link", DescResult::Unreadable},  {"absent", DescResult::Unreadable},
    };
    for (const auto &c : cases) {
        cplugininstinfo rec{};
        snprintf(rec.name, sizeof rec.name, "com.a.b");
        EXPECT_EQ(qdq::plugin::read_descriptor_file(dir + c.file, rec), c.want) << c.file;
    }
}

// One ustar entry: header (checksum off by `skew`) and data padded to blocks.
std::string tar_entry(const std::string &name, char type, const std::string &data, int skew = 0,
                      const char *size_field = nullptr) {
    std::string h(512, '\0');
    h.replace(0, std::min<size_t>(name.size(), 100), name.substr(0, 100));
    snprintf(&h[100], 8, "%07o", 0644);
    snprintf(&h[124], 12, "%011zo", data.size());
    if (size_field != nullptr) memcpy(&h[124], size_field, 12);
    h[156] = type;
    memcpy(&h[257], "ustar\0" "00", 8);
    memset(&h[148], ' ', 8);
    unsigned sum = 0;
    for (unsigned char c : h) sum += c;
    snprintf(&h[148], 8, "%06o", sum + skew);
    h[155] = ' ';
    std::string body = data;
    body.resize((data.size() + 511) / 512 * 512, '\0');
    return h + body;
}

// The header check must see the entries tar will unpack, or refuse.
TEST(PluginFacade, PackageHeadersAreReadAsTarReadsThem) {
    const std::string end(1024, '\0'), file = tar_entry("a", '0', "x");
    struct {
        const char *what;
        std::string stream, why;
    } cases[] = {
        {"plain", tar_entry("d/", '5', "") + file + end, ""},
        {"no end marker", file, ""},
        {"folder with data", tar_entry("d", '5', "xx") + end, "a folder with data"},
        {"bad checksum", tar_entry("a", '0', "x", 1) + end, "a damaged header"},
        {"truncated", file.substr(0, 600), "a truncated archive"},
        {"base-256 size", tar_entry("a", '0', "", 0, "\x80\0\0\0\0\0\0\0\0\0\1\0") + end, "a damaged size field"},
        {"long name climbs", tar_entry("././@LongLink", 'L', "../x") + file + end, "a name with \"..\""},
        {"two long names", tar_entry("L", 'L', "b") + tar_entry("x", 'x', "12 path=abc\n") + file + end,
         "two names for one entry"},
        // tar takes the pax size: the "data" below is a header of its own.
        {"pax size", tar_entry("x", 'x', "10 size=0\n") + tar_entry("a", '0', tar_entry("l", '2', "")) + end,
         "a symbolic link"},
        {"dangling pax", tar_entry("x", 'x', "12 path=abc\n") + end, "an extended header without its entry"},
        {"sparse", tar_entry("x", 'x', "21 GNU.sparse.size=9\n") + file + end, "a sparse file"},
    };
    for (auto &c : cases) {
        FILE *in = fmemopen(&c.stream[0], c.stream.size(), "r");
        EXPECT_EQ(qdq::plugin::check_tar(in, qdq::plugin::package_limits(0)), c.why) << c.what;
        fclose(in);
    }
}

TEST(PluginFacade, OsgiFactoryResetRemovesOnlyTheBundlesData) {
    std::string cache = qdq_test::in_root("/osgi/felix-cache/com.b");
    ASSERT_EQ(
        system(("mkdir -p '" + cache + "/data/y' '" + qdq_test::in_root("/tmp/osgi/bundletemp/com.b") + "'").c_str()),
        0);
    EXPECT_EQ(HgOsgiFactoryReset("com.b", "1"), 0);
    EXPECT_NE(access((cache + "/data").c_str(), F_OK), 0);
    EXPECT_NE(access(qdq_test::in_root("/tmp/osgi/bundletemp/com.b").c_str(), F_OK), 0);
    for (const char *bad : {"../felix-cache", "a;rm -rf x", "", "-rf", static_cast<const char *>(nullptr)})
        EXPECT_EQ(HgOsgiFactoryReset(bad, "1"), -1);
    EXPECT_EQ(access(cache.c_str(), F_OK), 0);
}

TEST(PluginFacade, ProcessLogIsEmptiedAtOneMebibyte) {
    std::string file = qdq_test::in_root("/var/pluginlog.txt");
    qdq_test::write_file(file, std::string(1024 * 1024 - 1, 'x'));
    HgSavePluginProcessLog("below %d", 1);
    EXPECT_GT(qdq_test::read_file(file).size(), 1024u * 1024u);
    HgSavePluginProcessLog("Stop C Plugin success, name:%s", "n");
    std::string text = qdq_test::read_file(file);
    EXPECT_EQ(text.substr(20), " : Stop C Plugin success, name:n\n");
}

std::string g_hook_calls;

// The install, run, stop and uninstall hooks are driven through the
// dispatcher (Orders.PluginCommandsWithKeysMissingAskTheFacade); here the
// status and list hooks, and the fixed answers once hooks are cleared.
TEST(PluginFacade, HooksTakeOverTheFixedAnswersAndCanBeCleared) {
    qdqpluginhooks_t hooks{};
    hooks.stop = [](const char *, const char *) { return 7; };
    hooks.status = [](const char *, const char *, const char *status, const char *) {
        g_hook_calls += std::string("status ") + status + ";";
    };
    hooks.list = [](cJSON *list) { cJSON_AddItemToArray(list, cJSON_CreateString("p1")); };
    HgSetPluginHooks(&hooks);
    EXPECT_EQ(HgPluginStop("com.a.b", "1"), 7);
    EXPECT_EQ(HgPluginRun("com.a.b", "1"), 0);  // no hook: the fixed answer
    HgSetCpluginStatus("com.a.b", "1", "Installed", "u1");
    EXPECT_EQ(g_hook_calls, "status Installed;");
    cJSON *obj = cJSON_CreateObject();
    ASSERT_EQ(HgListPlugin(obj), 0);
    char *text = cJSON_PrintUnformatted(obj);
    EXPECT_STREQ(text, "{\"Plugin\":[\"p1\"]}");
    cJSON_free(text);
    cJSON_Delete(obj);

    HgSetPluginHooks(nullptr);
    EXPECT_EQ(HgInstallPlugin(0, "com.a.b", "1", "http://h/x.cpk", 10, nullptr), 0);
    EXPECT_EQ(HgPluginStop("com.a.b", "1"), 0);
}

}  // namespace
