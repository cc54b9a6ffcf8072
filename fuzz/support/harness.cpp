#include "harness.h"

#include <dlfcn.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "common/thread.h"
#include "common/timer.h"
#include "jsonmsg/processjsonmsg.h"
#include "platform_double.h"

namespace qdq_fuzz {
namespace {

std::string g_root;
std::atomic<int> g_inputs{0};

void remove_root() {
    nftw(
        g_root.c_str(), [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

// Host callbacks as a well-behaved host would write them, but using every
// byte they are given: a reply buffer filled to its 512 bytes with no room
// left for a terminator, results added to the ability command.
void on_quickinstall(char *reply, const char *request) {
    size_t n = strnlen(request, 512);
    std::memcpy(reply, request, n);
}

void on_ability(cJSON *command, int *plattype) {
    const cJSON *type = cJSON_GetObjectItemCaseSensitive(command, "CmdType");
    if (!cJSON_IsString(type) || plattype == nullptr) fail("ability callback got no CmdType");
    cJSON_AddNumberToObject(command, "Status", *plattype);
}

void on_status(int, const char *status, int) {
    if (strnlen(status, 64) == 64) fail("status word without terminator");
}

void on_distri(int, platinfo *record) {
    if (record == nullptr) fail("distribution callback without record");
}

void fill(char *field, size_t cap, const char *value) { std::snprintf(field, cap, "%s", value); }

}  // namespace

void setup() {
    const char *tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/qdquick-fuzz-XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) fail("cannot make a private root");
    g_root = tmpl;
    for (const char *d : {"/var", "/qdconf", "/etc", "/etc/config", "/etc/config/system", "/tmp"})
        mkdir((g_root + d).c_str(), 0755);
    setenv("QDQUICK_ROOT", g_root.c_str(), 1);
    // One library second is 100 microseconds: the dispatcher's pause after
    // an event and the job manager's wait cost next to nothing.
    setenv("QDQUICK_TIME_SCALE", "0.0001", 0);
    atexit(remove_root);

    static const quickevcb_t callbacks = {nullptr, on_status, on_distri, on_quickinstall, on_ability};
    initQdQuick(&callbacks);
    // Timers are armed into the table but never fire: their actions connect
    // to platforms and reboot the gateway. Claiming the tick as running
    // keeps AppTimerCreate from starting it.
    timerflag.store(1);
}

Input::Input() {
    static const bool ready = (setup(), true);
    (void)ready;
    ++g_inputs;
}

Input::~Input() { --g_inputs; }

void reset() {
    for (platinfo *rec : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo}) {
        std::memset(rec, 0, sizeof *rec);
        fill(rec->MgtURL, sizeof rec->MgtURL, "127.0.0.1");
        rec->port = 9;
        rec->interval = 30;
        fill(rec->status, sizeof rec->status, "unconfigured");
        fill(rec->devrnd, sizeof rec->devrnd, "0123456789ABCDEF0123456789ABCDEF");
    }
    std::memset(&deviceinfo, 0, sizeof deviceinfo);
    fill(deviceinfo.devsn, sizeof deviceinfo.devsn, "SN0001");
    fill(deviceinfo.mac, sizeof deviceinfo.mac, "001122334455");
    deviceinfo.ipmode = 2;
    // No push can leave: regflag 0 stops SendPushMessage before it connects.
    std::memset(&messageserver, 0, sizeof messageserver);
    std::memset(&updateserver, 0, sizeof updateserver);
    srvreplyflag = 0;
    platresendnum = 0;
    std::memset(platreplybuf, 0, sizeof platreplybuf);
    AppInitTimerModule();
    CurTimerNum = 0;
    qdq_test::platform().reset();
}

void settle() {
    for (int i = 0; i < 2000 && qdq::live_workers_total() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    if (qdq::live_workers_total() != 0) fail("a worker thread did not end");
}

std::string text(const uint8_t *data, size_t size) {
    const auto *p = reinterpret_cast<const char *>(data);
    return std::string(p, strnlen(p, size));
}

void fail(const char *what, const std::string &detail) {
    std::fprintf(stderr, "fuzz property broken: %s %s\n", what, detail.c_str());
    std::abort();
}

void check_record(const platinfo &rec, const char *which) {
    struct Field {
        const char *name;
        const char *p;
        size_t cap;
    };
    const Field fields[] = {{"MgtURL", rec.MgtURL, sizeof rec.MgtURL},
                            {"challengecode", rec.challengecode, sizeof rec.challengecode},
                            {"curip", rec.curip, sizeof rec.curip},
                            {"heartbeatip", rec.heartbeatip, sizeof rec.heartbeatip},
                            {"devrnd", rec.devrnd, sizeof rec.devrnd},
                            {"reqkey", rec.reqkey, sizeof rec.reqkey},
                            {"status", rec.status, sizeof rec.status}};
    for (const Field &f : fields)
        if (strnlen(f.p, f.cap) == f.cap) fail("field without terminator:", std::string(which) + "." + f.name);
}

}  // namespace qdq_fuzz

// The harness runs no shell while an input runs. The only command a parser
// may lead to is the heartbeat time stamp; anything else means remote text
// reached a shell. Outside an input the engine's own commands run.
extern "C" int system(const char *command) {
    if (command == nullptr) return 0;
    if (qdq_fuzz::g_inputs.load() == 0) {
        using System = int (*)(const char *);
        static const auto real = reinterpret_cast<System>(dlsym(RTLD_NEXT, "system"));
        return real != nullptr ? real(command) : -1;
    }
    static const char *const kFiles[] = {"/var/manage_heart_beat_time_file", "/var/plug_heart_beat_time_file"};
    unsigned stamp = 0;
    char file[512] = "";
    int used = 0;
    if (std::sscanf(command, "echo %u > %511s%n", &stamp, file, &used) == 2 && command[used] == '\0') {
        for (const char *f : kFiles)
            if (qdq_fuzz::g_root + f == file) return 0;
    }
    qdq_fuzz::fail("unexpected shell command:", command);
}
