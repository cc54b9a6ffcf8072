// qdq-testhost: a small host daemon for the end-to-end scenarios. It fills
// the device and platform records from its options, initialises the
// library, runs each (blocking) connect on a thread of its own and prints
// every callback as one JSON line on stdout. Commands on stdin, one a line:
//   connect cube|manage|plugin|plugin-thread   disconnect N   record N   sockets
// ("plugin-thread" uses CreateConnectPluginPlatThread.) It runs until
// SIGTERM/SIGINT or --duration seconds.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "qdquick/qdquick.h"

namespace {

std::mutex out_mutex;

// One JSON line; `format` gives the object's members without the braces.
void emit(const char *format, ...) __attribute__((format(printf, 1, 2)));
void emit(const char *format, ...) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    std::lock_guard<std::mutex> lock(out_mutex);
    std::printf("{\"t\":%.3f,", static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9);
    va_list ap;
    va_start(ap, format);
    std::vprintf(format, ap);
    va_end(ap);
    std::printf("}\n");
    std::fflush(stdout);
}

// JSON string contents: quotes must not break a line.
std::string esc(const char *s) {
    std::string out;
    for (; s && *s; ++s) {
        if (*s == '"' || *s == '\\') out += '\\';
        if (static_cast<unsigned char>(*s) >= 0x20) out += *s;
    }
    return out;
}

void copy(char *dst, size_t cap, const std::string &src) { std::snprintf(dst, cap, "%s", src.c_str()); }

constexpr int kPluginThread = -3;  // connect code of CreateConnectPluginPlatThread

platinfo g_cube_request;  // what the host hands HGConnectCubePlat (its localport)

void on_status(int plattype, const char *status, int result) {
    emit("\"event\":\"status\",\"plat\":%d,\"status\":\"%s\",\"result\":%d", plattype, esc(status).c_str(), result);
}

void start_connect(int plat) {
    try {
        std::thread([plat] {
            int ret = 0;
            switch (plat) {
            case QDQ_PLAT_CUBE: ret = HGConnectCubePlat(&g_cube_request); break;
            case QDQ_PLAT_MANAGE: ret = HGConnectManagePlat(&manageplatinfo); break;
            case QDQ_PLAT_PLUGIN: ret = HGConnectPluginPlat(); break;
            default: ret = CreateConnectPluginPlatThread(); break;
            }
            emit("\"event\":\"connect_return\",\"plat\":%d,\"ret\":%d", plat, ret);
        }).detach();
    } catch (const std::system_error &) {
        emit("\"event\":\"error\",\"what\":\"thread\"");
    }
}

// Slot 0: timers the library leaves to its host; 8 connects the cube again.
void on_timer(int id, int period, int multtimes, int) {
    emit("\"event\":\"timer\",\"id\":%d,\"period\":%d,\"multtimes\":%d", id, period, multtimes);
    if (id == 8) start_connect(QDQ_PLAT_CUBE);
}

int socket_count() {
    std::error_code ec;
    int n = 0;
    for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd", ec))
        n += std::filesystem::read_symlink(fd.path(), ec).native().rfind("socket:", 0) == 0;
    return ec ? -1 : n;
}

void print_record(int plat) {
    const platinfo *r = getPlatInfo(plat);
    if (r == nullptr) return;
    emit("\"event\":\"record\",\"plat\":%d,\"status\":\"%s\",\"regflag\":%d,\"isinreg\":%d,\"socketfd\":%d,"
         "\"tcpflag\":%u,\"interval\":%u,\"curip\":\"%s\",\"port\":%u,\"localport\":%u,\"heartbeatip\":\"%s\","
         "\"heartbeatport\":%u,\"mgturl\":\"%s\",\"cuberegistered\":%d",
         plat, esc(r->status).c_str(), r->regflag, r->isinreg, r->socketfd, r->tcpflag, r->interval,
         esc(r->curip).c_str(), r->port, r->localport, esc(r->heartbeatip).c_str(), r->heartbeatport,
         esc(r->MgtURL).c_str(), deviceinfo.cuberegistered);
}

int plat_of(const std::string &name) {
    if (name == "cube") return QDQ_PLAT_CUBE;
    if (name == "manage") return QDQ_PLAT_MANAGE;
    if (name == "plugin") return QDQ_PLAT_PLUGIN;
    if (name == "plugin-thread") return kPluginThread;
    return std::atoi(name.c_str());
}

void read_commands() {
    std::string line;
    while (std::getline(std::cin, line)) {
        const size_t sp = line.find(' ');
        const std::string cmd = line.substr(0, sp);
        const int plat = plat_of(sp == std::string::npos ? "" : line.substr(sp + 1));
        if (cmd == "connect") {
            start_connect(plat);
        } else if (cmd == "disconnect") {
            const int ret = HGDisconnectPlat(plat);
            emit("\"event\":\"disconnect_return\",\"plat\":%d,\"ret\":%d", plat, ret);
        } else if (cmd == "record") {
            print_record(plat);
        } else if (cmd == "sockets") {
            emit("\"event\":\"sockets\",\"count\":%d", socket_count());
        }
    }
}

// The adapter reads the LOID from its device file under $QDQUICK_ROOT.
void write_device_file(const std::string &loid) {
    const char *root = std::getenv("QDQUICK_ROOT");
    const std::string dir = std::string(root ? root : "") + "/etc/qdplatform";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    std::ofstream(dir + "/device.conf") << "loid=" << loid << "\nbr0ip=192.168.1.1\nwanlinkmode=1\n";
}

[[noreturn]] void usage(const char *opt) {
    std::fprintf(stderr, "qdq-testhost: bad option %s\n", opt);
    std::exit(2);
}

}  // namespace

int main(int argc, char **argv) {
    // Signals are taken by sigtimedwait in this thread only.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    std::map<std::string, std::string> o;
    std::string connects;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a.rfind("--", 0) != 0 || i + 1 >= argc) usage(argv[i]);
        if (a == "--connect")
            connects += std::string(argv[++i]) + ",";
        else
            o[a.substr(2)] = argv[++i];
    }
    quickevcb_t cb{};
    cb.timerevent = on_timer;
    cb.platstatus = on_status;
    initQdQuick(&cb);

    copy(deviceinfo.devsn, sizeof deviceinfo.devsn, o["serial"]);
    copy(deviceinfo.mac, sizeof deviceinfo.mac, o["mac"]);
    copy(deviceinfo.ipaddr, sizeof deviceinfo.ipaddr, o["ipaddr"]);
    copy(deviceinfo.model, sizeof deviceinfo.model, "QDQ-TEST");
    deviceinfo.ipmode = static_cast<unsigned char>(o.count("ipmode") ? std::atoi(o["ipmode"].c_str()) : 2);
    if (o.count("loid")) write_device_file(o["loid"]);
    struct {
        const char *name;
        platinfo *rec;
    } plats[] = {{"cube", &cubeplatinfo}, {"manage", &manageplatinfo}, {"plugin", &pluginplatinfo}};
    for (auto &p : plats) {
        const std::string n = p.name;
        copy(p.rec->MgtURL, sizeof p.rec->MgtURL, o[n + "-addr"]);
        p.rec->port = static_cast<unsigned>(std::atoi(o[n + "-port"].c_str()));
        p.rec->localport = static_cast<unsigned>(std::atoi(o[n + "-localport"].c_str()));
        p.rec->tcpflag = static_cast<unsigned>(std::atoi(o[n + "-tcpflag"].c_str()));
        p.rec->socketfd = -1;
    }
    g_cube_request = cubeplatinfo;
    emit("\"event\":\"ready\"");

    std::thread(read_commands).detach();
    for (size_t pos = 0, next; (next = connects.find(',', pos)) != std::string::npos; pos = next + 1)
        start_connect(plat_of(connects.substr(pos, next - pos)));

    const double duration = o.count("duration") ? std::atof(o["duration"].c_str()) : 0;
    struct timespec wait;
    wait.tv_sec = duration > 0 ? static_cast<time_t>(duration) : 24 * 3600;
    wait.tv_nsec = duration > 0 ? static_cast<long>((duration - static_cast<double>(wait.tv_sec)) * 1e9) : 0;
    int sig;
    while ((sig = sigtimedwait(&stop, nullptr, &wait)) < 0 && errno == EINTR) {
    }
    emit("\"event\":\"exit\",\"signal\":%d", sig);
    // Library threads are still blocked in their sessions: leave without
    // running destructors under them.
    std::fflush(stdout);
    _exit(0);
}
