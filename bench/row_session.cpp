// Row 2: session set-up. HGConnectManagePlat over UDP against the platform
// simulator on loopback, from the call to the status "connected", against
// the round trips the set-up needs: the same Boot and Register texts sent
// from a bare UDP socket to the same simulator (the Register with the
// CheckSN for the challenge it got).
#include <cjson/cJSON.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/ids.h"
#include "env.h"
#include "proc.h"
#include "qdquick/qdquick.h"
#include "rows.h"

namespace bench {
namespace {

const char *kSerial = "SN-BENCH-0001";
const char *kLoid = "LOID-BENCH";
std::atomic<long long> g_connected_ns{0};  // when the manage platform became "connected"

long long now_ns() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

void on_status(int plattype, const char *status, int) {
    if (plattype == QDQ_PLAT_MANAGE && std::strcmp(status, "connected") == 0) g_connected_ns = now_ns();
}

// The manage port from the simulator's ready line.
unsigned manage_port(const std::string &ready) {
    size_t at = ready.find("manage=");
    if (ready.rfind("qdquick-sim ready", 0) != 0 || at == std::string::npos)
        throw std::runtime_error("simulator not ready: " + ready);
    return static_cast<unsigned>(std::stoul(ready.substr(ready.find(':', at) + 1)));
}

// The text of the last message of `kind` the gateway sent to the manage
// platform, from the simulator's record file.
std::string recorded(const std::string &file, const char *kind) {
    std::ifstream in(file);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        cJSON *rec = cJSON_Parse(line.c_str());
        const char *k = cJSON_GetStringValue(cJSON_GetObjectItem(rec, "kind"));
        const char *t = cJSON_GetStringValue(cJSON_GetObjectItem(rec, "text"));
        if (k != nullptr && t != nullptr && std::strcmp(k, kind) == 0) text = t;
        cJSON_Delete(rec);
    }
    if (text.empty()) throw std::runtime_error(std::string("no ") + kind + " recorded");
    return text;
}

std::string exchange(int fd, const std::string &text) {
    char buf[4096];
    send(fd, text.data(), text.size(), 0);
    ssize_t n = readable(fd, 2000) ? recv(fd, buf, sizeof buf, 0) : -1;
    if (n <= 0) throw std::runtime_error("the simulator did not answer");
    return std::string(buf, static_cast<size_t>(n));
}

// The Register text with "CheckSN" answering `boot_reply`'s challenge.
std::string answered(const std::string &reg, const std::string &boot_reply) {
    cJSON *reply = cJSON_Parse(boot_reply.c_str());
    cJSON *msg = cJSON_Parse(reg.c_str());
    const char *challenge = cJSON_GetStringValue(cJSON_GetObjectItem(reply, "ChallengeCode"));
    char digest[33] = "";
    getmd5((std::string(challenge ? challenge : "") + kSerial).c_str(), digest);
    cJSON_ReplaceItemInObject(msg, "CheckSN", cJSON_CreateString(digest));
    char *text = cJSON_Print(msg);  // formatted, as the library sends it
    std::string out = text ? text : "";
    cJSON_free(text);
    cJSON_Delete(msg);
    cJSON_Delete(reply);
    return out;
}

}  // namespace

std::vector<Figure> session_rows(const Plan &plan, const std::string &sim_path) {
    const std::string root = getenv("QDQUICK_ROOT");
    const std::string record = root + "/tmp/sim.jsonl";
    Child sim({sim_path, "--bind", "127.0.0.1", "--serial", kSerial, "--loid", kLoid, "--record", record,
               "--cube-port=0", "--manage-port=0", "--plugin-port=0", "--message-port=0"});
    const unsigned port = manage_port(sim.read_line(10000));

    quickevcb_t callbacks{};
    callbacks.platstatus = on_status;
    initQdQuick(&callbacks);
    std::filesystem::create_directories(root + "/etc/qdplatform");  // where the adapter reads the LOID
    std::ofstream(root + "/etc/qdplatform/device.conf") << "loid=" << kLoid << "\n";
    std::snprintf(deviceinfo.devsn, sizeof deviceinfo.devsn, "%s", kSerial);
    std::snprintf(deviceinfo.mac, sizeof deviceinfo.mac, "%s", "00:11:22:33:44:55");
    std::snprintf(deviceinfo.ipaddr, sizeof deviceinfo.ipaddr, "%s", "127.0.0.1");
    deviceinfo.ipmode = 2;
    const unsigned local = port_of(bound(SOCK_DGRAM).get());  // free a moment ago

    auto connect_once = [&] {
        std::snprintf(manageplatinfo.MgtURL, sizeof manageplatinfo.MgtURL, "%s", "127.0.0.1");
        manageplatinfo.port = port;
        manageplatinfo.localport = local;
        g_connected_ns = 0;
        const long long t0 = now_ns();
        const int ret = HGConnectManagePlat(&manageplatinfo);
        const long long t1 = g_connected_ns;
        HGDisconnectPlat(QDQ_PLAT_MANAGE);
        AppTimerDestory(qdq::kTimerConnectManage);  // the reconnect a disconnect arms
        if (ret < 1 || t1 == 0) throw std::runtime_error("HGConnectManagePlat returned " + std::to_string(ret));
        return Sample{(t1 - t0) / 1e3};
    };
    connect_once();  // also records the texts the baseline sends
    const std::string boot = recorded(record, "boot"), reg = recorded(record, "register");
    auto r = alternate(plan.repeats, connect_once, [&] {
        Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in to = loopback(port);
        connect(fd.get(), reinterpret_cast<sockaddr *>(&to), sizeof to);
        const auto t0 = Clock::now();
        const std::string reply = exchange(fd.get(), boot);
        exchange(fd.get(), answered(reg, reply));
        return Sample{seconds_since(t0) * 1e6};
    });
    return {{"2", "HGConnectManagePlat (UDP) to \"connected\"", "us", r.first[0], r.second[0], false,
             "its Boot + Register round trips from a bare socket, same simulator"}};
}

}  // namespace bench
