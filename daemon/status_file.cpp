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
};

const char *const kNames[] = {"cube", "manage", "plugin"};
std::mutex g_mutex;
Entry g_entries[3];
std::string g_started;
const char *g_state = "running";

std::string now_text() {
    std::time_t now = std::time(nullptr);
    struct tm tm_now;
    gmtime_r(&now, &tm_now);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm_now);
    return text;
}

// Needs g_mutex.
void write_locked() {
    cJSON *doc = cJSON_CreateObject();
    cJSON_AddNumberToObject(doc, "pid", static_cast<double>(getpid()));
    cJSON_AddStringToObject(doc, "state", g_state);
    cJSON_AddStringToObject(doc, "started", g_started.c_str());
    cJSON_AddStringToObject(doc, "updated", now_text().c_str());
    cJSON *platforms = cJSON_AddObjectToObject(doc, "platforms");
    for (int i = 0; i < 3; ++i) {
        cJSON *p = cJSON_AddObjectToObject(platforms, kNames[i]);
        cJSON_AddStringToObject(p, "status", g_entries[i].status.c_str());
        cJSON_AddNumberToObject(p, "result", g_entries[i].result);
        cJSON_AddStringToObject(p, "address", record_address(getPlatInfo(i + 1)).c_str());
        cJSON_AddStringToObject(p, "changed", g_entries[i].changed.c_str());
    }
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

void status_start() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_started = now_text();
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
