// C plugins end to end: real packages fetched with wget from a loopback
// server and unpacked with tar, the reported status sequence, starts and
// stops of real plugin processes (insmod, rmmod and cpulimit are fakes first
// on PATH, recording their command lines), refused injection attempts, and
// the install-result push check. Starts as a user of the plugin's own are
// in tests/e2e/test_confinement.cpp: they need a private /etc.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "net_helpers.h"
#include "platform_double.h"
#include "plugin/local_origin.h"
#include "qdquick/qdquick.h"

namespace {

using Lines = std::vector<std::string>;
std::string in_root(const std::string &p) { return qdq_test::in_root(p); }
void sh(const std::string &command) { EXPECT_EQ(system(command.c_str()), 0) << command; }
bool exists(const std::string &file) { return access(file.c_str(), F_OK) == 0; }
std::string tools() { return in_root("/tmp/tools.log"); }  // the fakes' record
std::string main_log() { return in_root("/var/shrcadlog.txt"); }

// Lines of `file` holding `needle`, waiting up to 5 s for `want` of them.
Lines grep(const std::string &file, const std::string &needle = "", size_t want = 0) {
    Lines hits;
    for (int i = 0; i < 500 && (i == 0 || hits.size() < want); ++i, usleep(10000)) {
        hits.clear();
        std::istringstream in(qdq_test::read_file(file));
        for (std::string l; std::getline(in, l);)
            if (l.find(needle) != std::string::npos) hits.push_back(l);
    }
    return hits;
}

Lines statuses(const std::string &name) {
    Lines out;
    for (const auto &l : grep(main_log(), "HgSetCpluginStatus name:" + name + " "))
        out.push_back(l.substr(l.rfind(':') + 1));
    return out;
}

// Serves the files of root/srv by request path (query ignored).
struct HttpServer {
    qdq::Fd fd = net::bound(SOCK_STREAM, true);
    std::atomic<bool> stop{false};
    std::thread thread{[this] {
        while (!stop) {
            if (!net::wait_in(fd.get(), 50)) continue;
            qdq::Fd c(accept(fd.get(), nullptr, nullptr));
            char buf[4096];  // request line and headers come in one segment on loopback
            ssize_t n = net::wait_in(c.get()) ? recv(c.get(), buf, sizeof buf, 0) : 0;
            std::string req(buf, size_t(std::max<ssize_t>(n, 0)));
            if (req.compare(0, 12, "GET /endless") == 0) {  // zeros until the client gives up
                std::string zeros(65536, '\0'), head = "HTTP/1.0 200 OK\r\n\r\n";
                send(c.get(), head.data(), head.size(), MSG_NOSIGNAL);
                while (!stop && send(c.get(), zeros.data(), zeros.size(), MSG_NOSIGNAL) > 0) {
                }
                continue;
            }
            std::string file = req.size() > 5 ? in_root("/srv/") + req.substr(5, req.find_first_of(" ?", 5) - 5) : "";
            std::string body = qdq_test::read_file(file), head = exists(file) ? "200 OK" : "404 Not Found";
            std::string reply =
                "HTTP/1.0 " + head + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
            // "slow*" files trickle in 8 KiB pieces.
            size_t piece = req.compare(0, 9, "GET /slow") == 0 ? 8192 : reply.size();
            for (size_t at = 0; at < reply.size(); at += piece) {
                if (at > 0) usleep(30 * 1000);
                send(c.get(), reply.data() + at, std::min(piece, reply.size() - at), MSG_NOSIGNAL);
            }
        }
    }};
    ~HttpServer() {
        stop = true;
        thread.join();
    }
    std::string url(const std::string &file) const {
        return "http://127.0.0.1:" + std::to_string(net::port_of(fd.get())) + "/" + file;
    }
};

// A package with a descriptor (none when empty), MyPlugin/prog, a library
// and `blob` random bytes.
void build_cpk(const std::string &out, const std::string &info, const std::string &prog = "#!/bin/sh\n",
               size_t blob = 0) {
    std::string stage = in_root("/stage");
    sh("rm -rf '" + stage + "' && mkdir -p '" + stage + "/MyPlugin/Lib' \"$(dirname '" + out + "')\"");
    if (blob > 0) sh("head -c " + std::to_string(blob) + " /dev/urandom >'" + stage + "/MyPlugin/blob'");
    if (!info.empty()) qdq_test::write_file(stage + "/Info.plugin", info);
    qdq_test::write_file(stage + "/MyPlugin/prog", prog);
    qdq_test::write_file(stage + "/MyPlugin/Lib/libplug.so", "lib");
    sh("tar -czf '" + out + "' -C '" + stage + "' .");
}

std::string info(const std::string &name, const std::string &version, const std::string &extra = "") {
    return "Name: " + name + "\nVersion: " + version + "\nKernelVersion: 9\nType: app\nEntryFile: MyPlugin/prog\n" +
           extra;
}

Lines install(const std::string &name, const std::string &version, const std::string &url) {
    cplugininstinfo r{};
    snprintf(r.name, sizeof r.name, "%s", name.c_str());
    snprintf(r.version, sizeof r.version, "%s", version.c_str());
    snprintf(r.url, sizeof r.url, "%s", url.c_str());
    r.runflag = 1;
    EXPECT_EQ(HgDownLoadCpluginAndProcess(&r), nullptr);
    return statuses(name);
}

class CPlugin : public ::testing::Test {
protected:
    void SetUp() override {
        static const bool fakes = [] {
            sh("mkdir -p '" + in_root("/fakebin") + "'");
            for (std::string tool : {"cpulimit", "insmod", "rmmod", "killall"}) {
                qdq_test::write_file(in_root("/fakebin/" + tool),
                                     "#!/bin/sh\necho \"" + tool + " $*\" >> '" + tools() + "'\n");
                chmod(in_root("/fakebin/" + tool).c_str(), 0755);
            }
            unsetenv("http_proxy");
            return setenv("PATH", (in_root("/fakebin:") + getenv("PATH")).c_str(), 1) == 0;
        }();
        ASSERT_TRUE(fakes);
        unlink(tools().c_str());
        qdq_test::platform().reset();
    }
    HttpServer server;
};

// All installs run at once, as the host starts each on its own thread: every
// one must still end in its own status sequence, nothing lost or mixed up.
TEST_F(CPlugin, PackagesAndDescriptorRulesAllAtOnce) {
    const std::string sys = "/opt/sys_cplugin/sys.cpk";
    const Lines ok = {"Downloading", "Installing", "Installed", "Active"},
                bad = {"Downloading", "Installing", "install_failed"};
    struct {
        std::string name, version, url, package, descriptor;
        Lines want;
    } cases[] = {
        {"com.t.plain", "1.0", "plain.cpk", "/srv/plain.cpk", info("com.t.plain", "1.0"), ok},
        {"com.t.wrap", "1.0", "wrap.tar", "/srv/w/wrap__QD__.cpk", info("com.t.wrap", "1.0"), ok},
        {"com.t.query", "1.0", "query.cpk?a=1&b=2", "/srv/query.cpk", info("com.t.query", "1.0"), ok},
        {"com.t.ver", "", "ver.cpk", "/srv/ver.cpk", info("com.t.ver", "2.5"), ok},
        {"com.t.lim", "1.0", "lim.cpk", "/srv/lim.cpk",
         info("com.t.lim", "1.0", "Right: user\nCpu: 3\nVirtualRam: 0\nSocket: 0\n"), ok},
        {"com.t.adm", "1.0", "adm.cpk", "/srv/adm.cpk",
         info("com.t.adm", "1.0", "Right: admin\nCpu: 3\nVirtualRam: 0\nSocket: 0\n"), ok},
        {"com.t.other", "1.0", "other.cpk", "/srv/other.cpk", info("com.t.mismatch", "1.0"), bad},
        {"com.t.desc", "1.0", "desc.cpk", "/srv/desc.cpk", info("com.t.desc", "1.0", "Description: Nameless\n"), bad},
        {"com.t.missing", "1.0", "missing.cpk", "", "", {"Downloading", "X_BROADCOM_COM_DnldFailed"}},
        // never ends: stopped at the size bound
        {"com.t.endless", "1", "endless.cpk", "", "", {"Downloading", "X_BROADCOM_COM_DnldFailed"}},
        // Unpacked from the local path, never started here.
        {"com.t.sys", "1.0", sys, sys, info("com.t.sys", "1.0"), {"Installed"}},
    };
    for (auto &c : cases)
        if (!c.package.empty()) build_cpk(in_root(c.package), c.descriptor);
    sh("tar -cf '" + in_root("/srv/wrap.tar") + "' -C '" + in_root("/srv/w") + "' wrap__QD__.cpk");
    std::vector<std::thread> installs;
    for (auto &c : cases)
        installs.emplace_back([&] { install(c.name, c.version, c.url[0] == '/' ? c.url : server.url(c.url)); });
    for (auto &t : installs) t.join();
    for (auto &c : cases) {
        EXPECT_EQ(statuses(c.name), c.want) << c.name;
        EXPECT_EQ(grep(in_root("/var/pluginlog.txt"), "Run C Plugin success, name:" + c.name + ", version:").size(),
                  c.want == ok ? 1u : 0u) << c.name;
        std::string s = c.name.substr(6), dir = in_root("/qdconf/CPlugin/" + s + "/");
        if (c.want.size() > 3 || c.want[0] == "Installed") {
            char target[PATH_MAX] = {0};
            EXPECT_GT(readlink((dir + "Temp").c_str(), target, sizeof target - 1), 0) << s;
            EXPECT_EQ(target, in_root("/var/CPlugin/" + s + "/Temp"));
            EXPECT_TRUE(exists(dir + "Data") && exists(dir + "MyPlugin/prog") && !exists(dir + s + ".cpk")) << s;
        }
    }
    EXPECT_TRUE(exists(in_root("/qdconf/CPlugin/Lib/libplug.so")));
    EXPECT_EQ(grep(main_log(), "name:com.t.ver version:2.5 status:Active").size(), 1u);
    EXPECT_EQ(grep(main_log(), "download stopped: package too large").size(), 1u);
    // Only the plugin of Right "user" is held to its limits, as a user of its own.
    EXPECT_EQ(grep(main_log(), "pluginname:com.t.adm,filename:MyPlugin/prog,cpulimit=-1,vRamLimit=-1,socketLimit=-1")
                  .size(), 1u);
    EXPECT_EQ(grep(main_log(), "with resource limit,cmd:ulimit -n 1024 -v unlimited ;setuidgid lim ./prog&").size(), 1u);
    EXPECT_EQ(qdq_test::platform().calls_named("CreatePluginUser"), Lines{"CreatePluginUser lim"});
    // Without its own user (none can be made here) the plugin does not start.
    EXPECT_EQ(grep(main_log(), "HgCPluginRun: no plugin user lim").size(), 1u);
    EXPECT_EQ(grep(tools(), "cpulimit"), Lines{});
}

// Builds gzip tars with Python's tarfile: "@<file>" starts one, members
// "kind:name[:arg]" follow: f file (arg: its text), z file of arg zero
// bytes, n arg empty files name0..., d folder, l symbolic link to arg, h hard
// link to arg, c character device, p FIFO, x file its pax header renames arg.
const char *const kMakeCpk = R"(
import io, sys, tarfile
packages = {}
for a in sys.argv[1:]:
    if a.startswith("@"): packages[a[1:]] = members = []
    else: members.append(a)
for out, members in packages.items():
  with tarfile.open(out, "w:gz", format=tarfile.PAX_FORMAT) as t:
    for m in members:
        kind, name, arg = (m.split(":", 2) + [""])[:3]
        for n in [name + str(i) for i in range(int(arg))] if kind == "n" else [name]:
            i, data = tarfile.TarInfo(n), b"x" if kind == "x" else b""
            i.mode = 0o755
            if kind == "f": data = arg.encode()
            if kind == "z": data = bytes(int(arg))
            if kind == "x": i.pax_headers = {"path": arg}
            if kind == "d": i.type = tarfile.DIRTYPE
            if kind in "lh": i.type, i.linkname = tarfile.SYMTYPE if kind == "l" else tarfile.LNKTYPE, arg
            if kind == "c": i.type, i.devmajor, i.devminor = tarfile.CHRTYPE, 1, 3
            if kind == "p": i.type = tarfile.FIFOTYPE
            i.size = len(data)
            t.addfile(i, io.BytesIO(data))
)";

// Packages built to escape their folder: each ends "install_failed" with
// nothing written outside the plugin folder, nothing of it in place, nothing
// started and its thread back; links an earlier install left are not
// written through.
TEST_F(CPlugin, HostilePackagesWriteAndStartNothing) {
    const std::string outside = in_root("/outside"), victim = outside + "/victim", up = "../../../../outside/";
    sh("mkdir -p '" + outside + "' '" + in_root("/srv") + "'");
    qdq_test::write_file(victim, "keep");
    chmod(victim.c_str(), 0644);
    qdq_test::write_file(in_root("/tmp/mkcpk.py"), kMakeCpk);
    auto desc = [](const std::string &s) { return "f:Info.plugin:" + info("com.h." + s, "1"); };
    auto prog = [](const std::string &s) {
        return "f:MyPlugin/prog:#!/bin/sh\ntouch " + in_root("/tmp/ran-" + s) + "\n";
    };
    const Lines refused = {"Downloading", "Installing", "install_failed"};
    const std::string link = "a symbolic link", climb = "a name with \"..\"";
    struct {
        std::string s;  // bundle com.h.<s>
        Lines members;
        std::string why;     // logged reason of the refusal ("package of com.h.<s> refused: <why>")
        bool sized = false;  // the order gives "Plugin_size"
    } cases[] = {
        {"link", {desc("link"), "l:MyPlugin:" + outside, prog("link")}, link},
        {"data", {desc("data"), prog("data"), "l:Data:" + outside, "f:Data/x:y"}, link},
        {"entry", {desc("entry"), prog("entry"), "l:MyPlugin/lib.so:" + victim}, link},
        {"hard", {desc("hard"), prog("hard"), "h:MyPlugin/h:" + victim}, "a hard link"},
        {"chr", {desc("chr"), prog("chr"), "c:MyPlugin/null"}, "a character device"},
        {"fifo", {"p:Info.plugin", prog("fifo")}, "a FIFO"},
        {"abs", {desc("abs"), prog("abs"), "f:" + outside + "/abs:x"}, "an absolute name"},
        {"climb", {desc("climb"), prog("climb"), "f:" + up + "climb:x"}, climb},
        {"pax", {desc("pax"), prog("pax"), "x:MyPlugin/ok:" + up + "pax"}, climb},
        // Caught from the headers, before a byte is unpacked.
        {"bomb", {desc("bomb"), prog("bomb"), "z:MyPlugin/big:2097152"}, "more than 1048576 bytes unpacked", true},
        {"bigbomb", {desc("bigbomb"), prog("bigbomb"), "z:MyPlugin/big:68157440"}, "more than 67108864 bytes unpacked"},
        {"many", {desc("many"), prog("many"), "n:MyPlugin/f:4096"}, "more than 4096 entries"},
        // Refused by the descriptor check ("why" empty).
        {"noname", {"f:Info.plugin:Version: 1\nType: app\nEntryFile: MyPlugin/prog\n", prog("noname")}, ""},
        // An earlier install left MyPlugin and Data as links out: installed.
        {"left", {desc("left"), prog("left")}, "-"},
    };
    std::string left = in_root("/qdconf/CPlugin/left/");
    sh("mkdir -p '" + left + "' && ln -s '" + outside + "' '" + left + "MyPlugin' && ln -s '" + outside + "' '" +
       left + "Data'");
    std::string args;
    for (auto &c : cases) {
        args += " '@" + in_root("/srv/" + c.s + ".cpk") + "'";
        for (const auto &m : c.members) args += " '" + m + "'";
    }
    sh("python3 '" + in_root("/tmp/mkcpk.py") + "'" + args);
    std::vector<std::thread> installs;
    for (auto &c : cases) {
        std::string cpk = in_root("/srv/" + c.s + ".cpk");
        struct stat st;
        ASSERT_EQ(stat(cpk.c_str(), &st), 0);
        std::string name = "com.h." + c.s, url = server.url(c.s + ".cpk");
        if (c.sized) HgInstallPlugin(0, name.c_str(), "1", url.c_str(), int(st.st_size), nullptr);
        installs.emplace_back([name, url] { install(name, "1", url); });
    }
    for (auto &t : installs) t.join();  // a hang here is a thread never released
    for (auto &c : cases) {
        bool ok = c.why == "-";
        const Lines installed = {"Downloading", "Installing", "Installed", "Active"};
        EXPECT_EQ(statuses("com.h." + c.s), ok ? installed : refused) << c.s;
        if (!ok && !c.why.empty()) {
            EXPECT_EQ(grep(main_log(), "package of com.h." + c.s + " refused: " + c.why).size(), 1u) << c.s;
        }
        EXPECT_EQ(exists(in_root("/tmp/ran-" + c.s)), ok) << c.s;
        EXPECT_EQ(exists(in_root("/qdconf/CPlugin/" + c.s)), ok) << c.s;
    }
    // A plugin whose MyPlugin or Data has become a link is neither changed
    // nor started.
    const std::string moved = in_root("/qdconf/CPlugin/moved/");
    for (const char *sub : {"MyPlugin", "Data"}) {
        sh("rm -rf '" + moved + "' && mkdir -p '" + moved + "MyPlugin' && rm -rf '" + moved + sub + "' && ln -s '" +
           outside + "' '" + moved + sub + "'");
        char entry[] = "victim";
        EXPECT_EQ(HgCPluginRun("com.h.moved", "1", "app", entry, 0, 0, 0), -1) << sub;
    }
    EXPECT_EQ(grep(tools(), "moved"), Lines{});
    struct stat st;
    for (const char *sub : {"MyPlugin", "Data"})
        EXPECT_TRUE(lstat((left + sub).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) << sub;
    EXPECT_EQ(qdq_test::read_file(victim), "keep");
    EXPECT_TRUE(stat(victim.c_str(), &st) == 0 && (st.st_mode & 07777) == 0644 && st.st_nlink == 1);
    sh("test \"$(ls -A '" + outside + "')\" = victim");
    sh("test -z \"$(ls -A '" + in_root("/qdconf/CPlugin") + "' | grep '^\\.')\"");  // no work folder left
}

// While a package trickles in, the host sees "Downloading" with the bytes
// done and expected: the order's "Plugin_size", else the server's length.
TEST_F(CPlugin, SlowDownloadReportsProgress) {
    static std::mutex seen_mutex;
    static std::vector<std::pair<long long, long long>> seen;
    static std::string query;  // an "Install_query" answer while it downloads
    qdqpluginhooks_t hooks{};
    hooks.status = [](const char *name, const char *, const char *status, const char *) {
        long long done = -1, expected = -1;
        if (std::string(status) != "Downloading" || HgGetCpluginDownload(name, &done, &expected) != 0) return;
        std::lock_guard<std::mutex> lock(seen_mutex);
        seen.emplace_back(done, expected);
        if (done == 0 || !query.empty()) return;
        char *out = nullptr;
        int plattype = 3;
        std::string ask = std::string(R"({"RPCMethod":"Install_query","Version":"1.0","Plugin_Name":")") + name + "\"}";
        if (HGProcessPlatJsonMsg(ask.c_str(), &out, &plattype) > 0) query = out;
        free(out);
    };
    HgSetPluginHooks(&hooks);
    const size_t blob = 96 * 1024;
    for (bool sized : {true, false}) {
        std::string name = sized ? "com.t.slowsized" : "com.t.slow", url = server.url(name.substr(6) + ".cpk");
        build_cpk(in_root("/srv/" + name.substr(6) + ".cpk"), info(name, "1.0"), "#!/bin/sh\n", blob);
        struct stat st;
        ASSERT_EQ(stat(in_root("/srv/" + name.substr(6) + ".cpk").c_str(), &st), 0);
        long long want = sized ? st.st_size + 1000 : st.st_size;
        if (sized) HgInstallPlugin(0, name.c_str(), "1.0", url.c_str(), int(want), nullptr);
        seen.clear();
        EXPECT_EQ(install(name, "1.0", url), (Lines{"Downloading", "Installing", "Installed", "Active"})) << name;
        std::lock_guard<std::mutex> lock(seen_mutex);
        size_t partial = std::count_if(seen.begin(), seen.end(), [&](const std::pair<long long, long long> &p) {
            return p.first > 0 && p.first < st.st_size && p.second == want;
        });
        EXPECT_GE(partial, 2u) << name;
        cJSON *answer = cJSON_Parse(query.c_str());
        auto number = [&](const char *key) { return cJSON_GetNumberValue(cJSON_GetObjectItem(answer, key)); };
        EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(answer, "Status")), "Downloading") << query;
        EXPECT_TRUE(number("Downloaded") > 0 && number("Downloaded") < st.st_size) << query;
        EXPECT_EQ(number("Plugin_size"), double(want)) << query;
        cJSON_Delete(answer);
        query.clear();
        EXPECT_EQ(HgGetCpluginDownload(name.c_str(), nullptr, nullptr), -1);  // over
    }
    HgSetPluginHooks(nullptr);
    EXPECT_FALSE(grep(main_log(), "wget: Length: ").empty());  // wget's output is in the log
}

TEST_F(CPlugin, InjectionAttemptsRunNothing) {
    const std::string mark = in_root("/tmp/pwned"), name = "request, unsafe name", ver = "request, unsafe version",
                      url = "request, unsafe url", entry = "descriptor, unsafe entry file";
    struct {
        std::string name, version, file, refused, entry = "";  // entry: a package's EntryFile, starting ./prog if run
    } cases[] = {
        {"com.t.a;touch " + mark, "1", "e.cpk", name},
        {"com.t.v", "1$(touch " + mark + ")", "e.cpk", ver},
        {"com.t.u", "1", "`touch " + mark + "`.cpk", url},
        {"com.t.q", "1", "x'.cpk", url},
        {"com.t.o", "1", "x.cpk|tee", url},
        {"com.t.g", "1", "x.cpk>pwned", url},
        {"com.t.l", "1", "x.cpk<in", url},
        {"com.t.n", "1", "x.cpk\ntouch", url},
        {"com.t.e1", "1", "e1.cpk", entry, "../prog"},
        {"com.t.e2", "1", "e2.cpk", entry, "MyPlugin/prog;true"},
    };
    auto refusals = [](const std::string &what) {
        return grep(main_log(), "HgDownLoadCpluginAndProcess: refused " + what).size();
    };
    for (auto &c : cases) {
        if (!c.entry.empty())
            build_cpk(in_root("/srv/" + c.file), "Name: " + c.name + "\nVersion: 1\nType: app\nEntryFile: " + c.entry,
                      "#!/bin/sh\ntouch '" + mark + "'\n");
        size_t before = refusals(c.refused);
        Lines want =
            c.entry.empty() ? Lines{"install_failed"} : Lines{"Downloading", "Installing", "install_failed"};
        EXPECT_EQ(install(c.name, c.version, server.url(c.file)), want) << c.name << c.version << c.file;
        EXPECT_EQ(refusals(c.refused), before + 1) << c.name << c.version << c.file;
    }
    char climb[] = "../prog";
    EXPECT_EQ(HgCPluginRun("com.t.e1", "1", "app", climb, -1, -1, -1), -1);
    EXPECT_EQ(ProcessCPluginStop("com.t.evil", "1", "ko", "m;true"), -1);
    usleep(200 * 1000);
    EXPECT_FALSE(exists(mark));
    EXPECT_EQ(grep(tools()), Lines{});
}

// A process that exists and has not ended (a zombie has).
bool live(int pid) {
    std::string stat = qdq_test::read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

// Two words after `label` in /proc/PID/limits: the soft and hard limit.
std::string limit_of(int pid, const std::string &label) {
    std::istringstream in(qdq_test::read_file("/proc/" + std::to_string(pid) + "/limits"));
    for (std::string l; std::getline(in, l);)
        if (l.rfind(label, 0) == 0) {
            std::istringstream words(l.substr(label.size()));
            std::string soft, hard;
            words >> soft >> hard;
            return soft + " " + hard;
        }
    return "";
}

// MyPlugin/<prog> of plugin <s>: marks that it ran, then keeps running.
std::string plugin_program(const std::string &s, const std::string &prog, const std::string &body) {
    std::string dir = in_root("/qdconf/CPlugin/" + s + "/MyPlugin");
    sh("mkdir -p '" + dir + "'");
    qdq_test::write_file(dir + "/" + prog, "#!/bin/sh\n" + body);  // made executable by the run
    return dir;
}

TEST_F(CPlugin, LimitRulesKeepTheWorkingDirectory) {
    char before[PATH_MAX], after[PATH_MAX];
    ASSERT_NE(getcwd(before, sizeof before), nullptr);
    struct {
        int cpu, vram, sockets;
        const char *limiter;  // cpulimit percentage, or none
        std::string line;     // logged start line; "setuidgid" = own user
        std::string nofile;   // open-file limit of the running plugin
        bool local = false;   // installed by a local client's order
    } cases[] = {
        {1, -1, -1, "1", "without resource limit,cmd:./p0&", ""},
        {3, -1, -1, "1", "without resource limit,cmd:./p1&", ""},
        {0, 0, 0, nullptr, "with resource limit,cmd:ulimit -n 1024 -v unlimited ;setuidgid s2 ./p2&", ""},
        {-1, -1, 64, nullptr, "with resource limit,cmd:ulimit -n 64 -v  ;./p3&", "64 64"},
        {8, 2048, 10, "4", "with resource limit,cmd:ulimit -n 10 -v 2048 ;setuidgid s4 ./p4&", ""},
        // whatever its descriptor claims, a locally ordered plugin is confined
        {-1, -1, -1, nullptr, "with resource limit,cmd:ulimit -n 1024 -v unlimited ;setuidgid s5 ./p5&", "", true},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        std::string s = "s" + std::to_string(i), p = "p" + std::to_string(i), name = "com.x." + s;
        std::string dir = plugin_program(s, p, "touch ran\nexec sleep 30\n");
        char entry[16];
        snprintf(entry, sizeof entry, "bin/%s", p.c_str());
        if (c.local) qdq::plugin_mark_local_origin(name.c_str());
        EXPECT_EQ(HgCPluginRun(name.c_str(), "1", "app", entry, c.cpu, c.vram, c.sockets), 0) << s;
        EXPECT_EQ(entry, p);  // cut to its last component
        EXPECT_EQ(grep(main_log(), c.line).size(), 1u) << s;
        if (c.line.find("setuidgid") != std::string::npos) {
            // No plugin user can be made here: nothing runs, not as root either.
            EXPECT_EQ(qdq_test::platform().calls_named("CreatePluginUser"), Lines{"CreatePluginUser " + s});
            EXPECT_EQ(HgCPluginPid(name.c_str()), 0) << s;
            EXPECT_FALSE(exists(dir + "/ran")) << s;
            qdq_test::platform().reset();
            continue;
        }
        // The daemon's user starts it in its own directory; the pid reported
        // is the program's own, and the limiter watches that pid.
        for (int w = 0; w < 500 && !exists(dir + "/ran"); ++w) usleep(10000);
        const int pid = HgCPluginPid(name.c_str());
        ASSERT_GT(pid, 0) << s;
        EXPECT_EQ(getpgid(pid), pid) << s;  // a group of its own
        EXPECT_EQ(getsid(pid), pid) << s;
        Lines limiter = c.limiter ? Lines{"cpulimit -p " + std::to_string(pid) + " -l " + c.limiter + " -z -q"} : Lines{};
        EXPECT_EQ(grep(tools(), "cpulimit", limiter.size()), limiter) << s;
        if (!c.nofile.empty()) {
            EXPECT_EQ(limit_of(pid, "Max open files"), c.nofile) << s;
        }
        EXPECT_EQ(ProcessCPluginStop(name.c_str(), "1", "app", p.c_str()), 0);
        EXPECT_FALSE(live(pid)) << s;
        unlink(tools().c_str());
    }
    ASSERT_NE(getcwd(after, sizeof after), nullptr);
    EXPECT_STREQ(after, before);
}

// The system answers an "app" with the status of its background start.
TEST_F(CPlugin, AppWithoutEntryOrMyPluginStartsNothingAndAnswersZero) {
    plugin_program("noentry", "prog", "touch ran\n");
    char empty[] = "", entry[] = "prog";
    EXPECT_EQ(HgCPluginRun("com.x.noentry", "1", "app", empty, -1, -1, -1), 0);
    EXPECT_EQ(HgCPluginRun("com.x.nodir", "1", "app", entry, -1, -1, -1), 0);
    EXPECT_EQ(grep(main_log(), "HgCPluginRun: no entry file, nothing started").size(), 1u);
    EXPECT_EQ(grep(main_log(), "HgCPluginRun: no MyPlugin directory, nothing started").size(), 1u);
    EXPECT_EQ(HgCPluginPid("com.x.noentry") + HgCPluginPid("com.x.nodir"), 0);
}

TEST_F(CPlugin, KernelModuleAndStopRules) {
    std::string dir = in_root("/qdconf/CPlugin/kmod/MyPlugin");
    sh("mkdir -p '" + dir + "'");
    char entry[] = "drv/mod.ko";
    EXPECT_EQ(HgCPluginRun("com.x.kmod", "1", "ko", entry, 5, -1, -1), 0);
    EXPECT_EQ(grep(tools()), Lines{"insmod " + dir});  // the directory; a module gets no limiter
    qdq::plugin_mark_local_origin("com.y.kmod");  // a local order never loads a module
    EXPECT_EQ(HgCPluginRun("com.y.kmod", "1", "ko", entry, 5, -1, -1), -1);
    EXPECT_EQ(grep(tools()), Lines{"insmod " + dir});
    // A process of this test named like every plugin's entry: never touched.
    pid_t decoy = fork();
    if (decoy == 0) {
        execlp("sleep", "sleep", "30", static_cast<char *>(nullptr));
        _exit(127);
    }
    struct {
        const char *type, *name, *entry;  // entry: what the stop is given
        Lines tools;
    } cases[] = {
        {"ko", "com.x.kmod", "drv/mod.ko", {"rmmod mod.ko"}},
        {"app", "com.brevanta.varnelo.smartgateway.thunder", "bin/th", {}},
        {"app", "com.brevanta.varnelo.smartgateway.b01", "b c", {"rmmod m01_b01.ko"}},
        {"app", "com.brevanta.varnelo.smartgateway.m01", "m;01", {"rmmod m01_b01.ko"}},
        {"app", "com.x.plain", "bin/$(prog)", {}},
    };
    for (const auto &c : cases) {
        int pid = 0, child = 0;
        if (std::strcmp(c.type, "app") == 0) {  // running, with a child in its group
            std::string s = std::strrchr(c.name, '.') + 1;
            std::string mydir = plugin_program(s, "sleep", "sleep 30 &\necho $! > child\nexec sleep 30\n");
            char run_entry[] = "sleep";
            ASSERT_EQ(HgCPluginRun(c.name, "3.1", "app", run_entry, -1, -1, -1), 0);
            for (int w = 0; w < 500 && qdq_test::read_file(mydir + "/child").empty(); ++w) usleep(10000);
            pid = HgCPluginPid(c.name);
            child = std::atoi(qdq_test::read_file(mydir + "/child").c_str());
            ASSERT_TRUE(pid > 0 && live(pid) && child > 0 && live(child)) << c.name;
        }
        unlink(tools().c_str());
        qdq_test::platform().reset();
        EXPECT_EQ(ProcessCPluginStop(c.name, "3.1", c.type, c.entry), 0) << c.name;
        EXPECT_EQ(grep(tools()), c.tools) << c.name;
        EXPECT_EQ(qdq_test::platform().calls_named("stoppid"), Lines{}) << c.name;
        EXPECT_EQ(grep(in_root("/var/pluginlog.txt"), std::string("Stop C Plugin success, name:") + c.name).size(),
                  1u) << c.name;
        if (pid != 0) {
            EXPECT_FALSE(live(pid) || live(child) || HgCPluginPid(c.name) != 0) << c.name;
        }
    }
    EXPECT_TRUE(live(decoy));
    kill(decoy, SIGKILL);
    waitpid(decoy, nullptr, 0);
}

TEST_F(CPlugin, PushCheckPushesFinalStatusesOnly) {
    struct {
        const char *status, *upgradeid, *push;  // push: "<failed> <version> <errcode> <upgrade id> <name>"
    } cases[] = {
        {"Installed", "U1", "0 1.0  U1 com.p.a"},
        {"install_failed", "U2", "1 1.0 5 U2 com.p.a"},
        {"X_BROADCOM_COM_DnldFailed", "U3", "1 1.0 2 U3 com.p.a"},
        {"Installing", "U4", nullptr},
        {"Installed", "", nullptr},
        {"Installed", nullptr, nullptr},
    };
    Lines want, got;
    for (const auto &c : cases) {
        EXPECT_EQ(HgCplugPushCheck("com.p.a", "1.0", c.status, c.upgradeid) == 0, c.push != nullptr) << c.status;
        if (c.push != nullptr) want.push_back(std::string("HgPushUpgradeMessage 0 ") + c.push);
    }
    // A push worker is started inside the check (its answer says which),
    // so once these have arrived no other can come.
    for (int i = 0; i < 500 && got.size() < want.size(); ++i, usleep(10000))
        got = qdq_test::platform().calls_named("HgPushUpgradeMessage");
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(got, want);
}

}  // namespace
