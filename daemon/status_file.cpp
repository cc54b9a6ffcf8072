#include "status_file.h"

#include <cjson/cJSON.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "common/paths.h"
#include "plugins.h"
#include "qdquick/qdquick.h"
#include "records.h"
#include "say.h"

namespace qdd {

namespace {

struct Entry {
    std::string status = "unconfigured";
    int result = 0;
    std::string changed;
    std::string heartbeat;  // time of the last answered heartbeat
    std::string failure;    // the last failing status, its result and time
    int failure_result = 0;
    std::string failure_time;
};

struct Reload {
    std::string time;
    std::vector<std::string> applied, restart;
    std::string error;
};

const char *const kNames[] = {"cube", "manage", "plugin"};
std::mutex g_mutex;
Entry g_entries[3];
std::string g_started;
std::string g_version;
const char *g_state = "running";
std::vector<PortProblem> g_problems;
Reload g_reload;

cJSON *string_array(const std::vector<std::string> &items) {
    cJSON *a = cJSON_CreateArray();
    for (const std::string &i : items) cJSON_AddItemToArray(a, cJSON_CreateString(i.c_str()));
    return a;
}

std::string now_text() {
    std::time_t now = std::time(nullptr);
    struct tm tm_now;
    gmtime_r(&now, &tm_now);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm_now);
    return text;
}

// Needs g_mutex. What a platform's status word alone does not keep.
void add_history(cJSON *platform, const Entry &e) {
    cJSON_AddStringToObject(platform, "last_heartbeat", e.heartbeat.c_str());
    if (e.failure.empty()) return;
    cJSON *f = cJSON_AddObjectToObject(platform, "last_failure");
    cJSON_AddStringToObject(f, "status", e.failure.c_str());
    cJSON_AddNumberToObject(f, "result", e.failure_result);
    cJSON_AddStringToObject(f, "reason", result_words(e.failure_result).c_str());
    cJSON_AddStringToObject(f, "time", e.failure_time.c_str());
}

// Needs g_mutex.
void add_problems_and_reload(cJSON *doc) {
    cJSON *problems = cJSON_AddArrayToObject(doc, "problems");
    for (const PortProblem &pp : g_problems) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "service", pp.service.c_str());
        cJSON_AddStringToObject(o, "protocol", pp.protocol.c_str());
        cJSON_AddNumberToObject(o, "port", pp.port);
        cJSON_AddStringToObject(o, "reason", pp.reason.c_str());
        cJSON_AddItemToArray(problems, o);
    }
    if (g_reload.time.empty()) return;
    cJSON *r = cJSON_AddObjectToObject(doc, "reload");
    cJSON_AddStringToObject(r, "time", g_reload.time.c_str());
    cJSON_AddStringToObject(r, "result", g_reload.error.empty() ? "applied" : "refused");
    cJSON_AddItemToObject(r, "applied", string_array(g_reload.applied));
    cJSON_AddItemToObject(r, "needs_restart", string_array(g_reload.restart));
    cJSON_AddStringToObject(r, "error", g_reload.error.c_str());
}

// Needs g_mutex.
void write_locked() {
    cJSON *doc = cJSON_CreateObject();
    cJSON_AddNumberToObject(doc, "pid", static_cast<double>(getpid()));
    cJSON_AddStringToObject(doc, "state", g_state);
    cJSON_AddStringToObject(doc, "version", g_version.c_str());
    cJSON_AddStringToObject(doc, "started", g_started.c_str());
    cJSON_AddStringToObject(doc, "updated", now_text().c_str());
    cJSON *platforms = cJSON_AddObjectToObject(doc, "platforms");
    for (int i = 0; i < 3; ++i) {
        cJSON *p = cJSON_AddObjectToObject(platforms, kNames[i]);
        cJSON_AddStringToObject(p, "status", g_entries[i].status.c_str());
        cJSON_AddNumberToObject(p, "result", g_entries[i].result);
        cJSON_AddStringToObject(p, "address", record_address(getPlatInfo(i + 1)).c_str());
        cJSON_AddStringToObject(p, "changed", g_entries[i].changed.c_str());
        add_history(p, g_entries[i]);
    }
    add_problems_and_reload(doc);
    cJSON_AddItemToObject(doc, "plugins", plugins_to_json());
    char *text = cJSON_Print(doc);
    cJSON_Delete(doc);
    if (text == nullptr) return;
    const std::string path = qdq::path(kStatusFile);
    const std::string tmp = path + ".tmp";
    if (FILE *f = std::fopen(tmp.c_str(), "w")) {
        const bool good = std::fputs(text, f) >= 0 && std::fputc('\n', f) != EOF;
        if (std::fclose(f) == 0 && good && std::rename(tmp.c_str(), path.c_str()) == 0) {
            cJSON_free(text);
            return;
        }
    }
    note("cannot write the status file %s", path.c_str());
    cJSON_free(text);
}

}  // namespace

std::string result_words(int result) {
    switch (result) {
    case 101: return "no address or transport failure";
    case 102: return "superseded by a newer connect";
    case 103: return "address family mismatch";
    case -2: return "the platform asks for a new Boot";
    case -1: return "no answer, or no usable Result in it";
    default: return "the platform answered Result " + std::to_string(result);
    }
}

void status_start(const char *version, const std::vector<PortProblem> &problems) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_started = now_text();
    g_version = version;
    g_problems = problems;
    if (!problems.empty()) g_state = "degraded";
    for (int i = 0; i < 3; ++i) {
        const platinfo *record = getPlatInfo(i + 1);
        g_entries[i].status.assign(record->status, strnlen(record->status, sizeof record->status));
        g_entries[i].changed = g_started;
    }
    write_locked();
}

void status_platform(int plattype, const std::string &status, int result) {
    if (plattype < 1 || plattype > 3) return;
    std::lock_guard<std::mutex> lock(g_mutex);
    Entry &e = g_entries[plattype - 1];
    e.status = status;
    e.result = result;
    e.changed = now_text();
    // "wait_heatbeat" (sic, the library's word) follows an answered heartbeat.
    if (status == "wait_heatbeat") e.heartbeat = e.changed;
    // Not "try_connect_failed": one transport of a connect failing is a step
    // on the way to the connect's own outcome, and would hide its code.
    if (status == "connect_failed" || (status == "disconnect" && result != 0)) {
        e.failure = status;
        e.failure_result = result;
        e.failure_time = e.changed;
    }
    write_locked();
}

void status_failed(const char *version, const std::vector<PortProblem> &problems) {
    status_start(version, problems);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state = "failed";
    write_locked();
}

void status_reload(const std::vector<std::string> &applied, const std::vector<std::string> &restart,
                   const std::string &error) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_reload = {now_text(), applied, restart, error};
    write_locked();
}

void status_write() {
    std::lock_guard<std::mutex> lock(g_mutex);
    write_locked();
}

void status_stopped() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state = "stopped";
    write_locked();
}

}  // namespace qdd
