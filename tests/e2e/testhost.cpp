// qdq-testhost: a small host daemon for the end-to-end scenarios. It fills
// the device and platform records from its options, initialises the
// library, connects the platforms it is told to (each connect blocks, so
// each runs on a thread of its own) and prints every callback as one JSON
// line on stdout. Commands on stdin, one per line:
//   connect cube|manage|plugin|plugin-thread    disconnect N    record N
//   sockets
// ("plugin" calls HGConnectPluginPlat on a thread of the host's, so that
// its result is seen; "plugin-thread" uses CreateConnectPluginPlatThread.)
// It runs until SIGTERM/SIGINT or --duration seconds.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include "qdquick/qdquick.h"

namespace {

pthread_mutex_t out_mutex = PTHREAD_MUTEX_INITIALIZER;

// One JSON line; `body` is the object's members without the braces.
void emit(const char *format, ...) __attribute__((format(printf, 1, 2)));
void emit(const char *format, ...) {
    char body[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(body, sizeof body, format, ap);
    va_end(ap);
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    pthread_mutex_lock(&out_mutex);
    std::printf("{\"t\":%.3f,%s}\n", static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9, body);
    std::fflush(stdout);
    pthread_mutex_unlock(&out_mutex);
}

// JSON string contents (the texts here are plain, but quotes must not break
// a line).
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

void *run_connect(void *arg) {
    const int plat = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    int ret = 0;
    switch (plat) {
    case QDQ_PLAT_CUBE: ret = HGConnectCubePlat(&g_cube_request); break;
    case QDQ_PLAT_MANAGE: ret = HGConnectManagePlat(&manageplatinfo); break;
    case QDQ_PLAT_PLUGIN: ret = HGConnectPluginPlat(); break;
    default: ret = CreateConnectPluginPlatThread(); break;
    }
    emit("\"event\":\"connect_return\",\"plat\":%d,\"ret\":%d", plat, ret);
    return nullptr;
}

void start_connect(int plat) {
    pthread_t t;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (pthread_create(&t, &attr, run_connect, reinterpret_cast<void *>(static_cast<intptr_t>(plat))) != 0)
        emit("\"event\":\"error\",\"what\":\"thread\"");
    pthread_attr_destroy(&attr);
}

// Slot 0: timers the library leaves to its host; 8 connects the cube again.
void on_timer(int id, int period, int multtimes, int) {
    emit("\"event\":\"timer\",\"id\":%d,\"period\":%d,\"multtimes\":%d", id, period, multtimes);
    if (id == 8) start_connect(QDQ_PLAT_CUBE);
}

int socket_count() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    char link[64];
    while (struct dirent *e = readdir(d)) {
        std::string p = std::string("/proc/self/fd/") + e->d_name;
        ssize_t len = readlink(p.c_str(), link, sizeof link - 1);
        if (len > 0 && std::strncmp(link, "socket:", 7) == 0) ++n;
    }
    closedir(d);
    return n;
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

void *read_commands(void *) {
    std::string line;
    while (std::getline(std::cin, line)) {
        const size_t sp = line.find(' ');
        const std::string cmd = line.substr(0, sp);
        const std::string arg = sp == std::string::npos ? "" : line.substr(sp + 1);
        if (cmd == "connect") {
            start_connect(plat_of(arg));
        } else if (cmd == "disconnect") {
            const int ret = HGDisconnectPlat(plat_of(arg));
            emit("\"event\":\"disconnect_return\",\"plat\":%d,\"ret\":%d", plat_of(arg), ret);
        } else if (cmd == "record") {
            print_record(plat_of(arg));
        } else if (cmd == "sockets") {
            emit("\"event\":\"sockets\",\"count\":%d", socket_count());
        }
    }
    return nullptr;
}

// The adapter reads the LOID from its device file under $QDQUICK_ROOT.
void write_device_file(const std::string &loid) {
    const char *root = std::getenv("QDQUICK_ROOT");
    std::string dir = std::string(root ? root : "") + "/etc/qdplatform";
    mkdir((std::string(root ? root : "") + "/etc").c_str(), 0755);
    mkdir(dir.c_str(), 0755);
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

    pthread_t reader;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_create(&reader, &attr, read_commands, nullptr);
    pthread_attr_destroy(&attr);
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
