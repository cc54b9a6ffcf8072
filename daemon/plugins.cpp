#include "plugins.h"

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "plugin_files.h"
#include "plugin_state.h"
#include "qdquick/qdquick.h"
#include "say.h"
#include "status_file.h"
#include "threads.h"

namespace qdd {

namespace {

struct Plugin {
    std::string version, status, upgradeid;
    bool running = false;     // to be started again after a restart
    bool installing = false;  // an install is under way
    int pid = 0;              // its program, while it runs
};

std::mutex g_mutex;
std::map<std::string, Plugin> g_plugins;  // by bundle name
bool g_run_after_install = true;
// From the shutdown on, stops are the daemon's own: what should run after
// the next start stays as it was.
std::atomic<bool> g_shutting_down{false};

bool is_final(const std::string &status) {
    return status == "Installed" || status == "install_failed" || status == "X_BROADCOM_COM_DnldFailed";
}

// Needs g_mutex.
void remember_locked() {
    if (g_shutting_down) return;
    SavedPlugins saved;
    for (const auto &[name, p] : g_plugins) saved[name] = SavedPlugin{p.version, p.upgradeid, p.running, p.installing, p.pid};
    if (!save_plugins(saved)) note("cannot save the plugin list for the next start");
}

void set_status(const std::string &name, const std::string &version, const std::string &status) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        Plugin &p = g_plugins[name];
        if (!version.empty()) p.version = version;
        p.status = status;
        if (status == "Active") p.running = true;
        if (status == "install_failed" || status == "X_BROADCOM_COM_DnldFailed") p.running = false;
        if (status == "Active" || is_final(status)) p.installing = false;
        remember_locked();
    }
    status_write();
}

std::string status_of(const std::string &name) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_plugins.find(name);
    return it == g_plugins.end() ? std::string() : it->second.status;
}

// The pid is the library's record of the program it started, never a
// process found by name.
void report_running(const std::string &name, const std::string &version) {
    PluginDescriptor d;
    if (!read_descriptor(name, d)) return;
    const int pid = HgCPluginPid(name.c_str());
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_plugins[name].pid = pid;
        remember_locked();
    }
    if (pid != 0)
        say("plugin %s %s is running: %s, pid %d", name.c_str(), version.c_str(), d.entry.c_str(), pid);
    else
        say("plugin %s %s was started but %s is not running", name.c_str(), version.c_str(), d.entry.c_str());
}

void *install_body(void *arg) {
    std::unique_ptr<cplugininstinfo> record(static_cast<cplugininstinfo *>(arg));
    const std::string name = record->name, version = record->version;
    HgDownLoadCpluginAndProcess(record.get());
    const std::string status = status_of(name);
    if (status == "Active") report_running(name, version);
    else say("install of %s %s ended: %s", name.c_str(), version.c_str(), status.c_str());
    return nullptr;
}

template <std::size_t N>
void put(char (&field)[N], const char *value) {
    std::snprintf(field, N, "%s", value != nullptr ? value : "");
}

}  // namespace

void plugins_configure(bool run_after_install) { g_run_after_install = run_after_install; }

int plugin_install(int os, const char *name, const char *version, const char *url,
                   const char *upgradeid) {
    cplugininstinfo probe;
    if (!safe_word(name, sizeof probe.name, false) || short_name(name).empty() ||
        !safe_word(version, sizeof probe.version, true) || !safe_url(url, sizeof probe.url) ||
        !safe_word(upgradeid, sizeof probe.upgradeid, true)) {
        say("install refused: name, version, address or upgrade id not acceptable");
        return -3;
    }
    auto record = std::make_unique<cplugininstinfo>();
    std::memset(record.get(), 0, sizeof *record);
    put(record->name, name);
    put(record->version, version);
    put(record->url, url);
    put(record->upgradeid, upgradeid);
    record->runflag = g_run_after_install ? 1 : 0;
    say("install of %s %s ordered (OS %d) from %s", name, version != nullptr ? version : "", os, url);
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        Plugin &p = g_plugins[name];
        p.version = version != nullptr ? version : "";
        p.upgradeid = upgradeid != nullptr ? upgradeid : "";
        p.status = "Ordered";
        p.installing = true;
        remember_locked();
    }
    if (start_detached(install_body, record.get()) != 0) {
        say("install of %s: cannot start the install thread", name);
        return -3;
    }
    record.release();  // the thread owns it now
    return 0;
}

void plugin_status(const char *name, const char *version, const char *status, const char *upgradeid) {
    if (name == nullptr || status == nullptr) return;
    // "Downloading" comes again with every bit of progress: said once.
    if (std::strcmp(status, "Downloading") != 0 || status_of(name) != status)
        say("plugin %s %s: %s", name, version != nullptr ? version : "", status);
    set_status(name, version != nullptr ? version : "", status);
    // The platform learns the outcome of its order from the library's push.
    if (is_final(status)) HgCplugPushCheck(name, version, status, upgradeid);
}

int plugin_run(const char *name, const char *version) {
    PluginDescriptor d;
    if (name == nullptr || !safe_word(name, 128, false) || !read_descriptor(name, d)) return -1;
    char entry[128];
    std::snprintf(entry, sizeof entry, "%s", d.entry.c_str());
    const int rc = HgCPluginRun(name, version, d.type.c_str(), entry, d.cpu, d.vram, d.sockets);
    if (rc == 0) {
        set_status(name, version != nullptr ? version : "", "Active");
        report_running(name, version != nullptr ? version : "");
    }
    return rc == 0 ? 0 : -1;
}

int plugin_stop(const char *name, const char *version) {
    PluginDescriptor d;
    if (name == nullptr || !safe_word(name, 128, false) || !read_descriptor(name, d)) return -1;
    const int rc = ProcessCPluginStop(name, version, d.type.c_str(), d.entry.c_str());
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_plugins[name].running = false;
        g_plugins[name].pid = 0;
    }
    set_status(name, version != nullptr ? version : "", "Idle");
    say("plugin %s stopped", name);
    return rc;
}

void plugins_add_to_list(cJSON *list) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto &[name, p] : g_plugins) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "Plugin_Name", name.c_str());
        cJSON_AddStringToObject(item, "Version", p.version.c_str());
        cJSON_AddStringToObject(item, "Status", p.status.c_str());
        long long done = 0, expected = 0;
        if (p.status == "Downloading" && HgGetCpluginDownload(name.c_str(), &done, &expected) == 0) {
            cJSON_AddNumberToObject(item, "Downloaded", static_cast<double>(done));
            cJSON_AddNumberToObject(item, "Plugin_size", static_cast<double>(expected));
        }
        cJSON_AddItemToArray(list, item);
    }
}

cJSON *plugins_to_json() {
    cJSON *list = cJSON_CreateArray();
    plugins_add_to_list(list);
    return list;
}

void plugins_restore() {
    const SavedPlugins saved = load_plugins();
    const auto installed = installed_plugins();
    // An install that the last stop cut off failed; a folder without a
    // descriptor of its own is what it left half-way, and goes.
    for (const auto &[name, p] : saved) {
        if (!p.installing) continue;
        if (installed.count(name) == 0) {
            std::error_code ec;
            std::filesystem::remove_all(plugin_dir(name), ec);  // never follows a link
        }
        say("install of %s %s was cut off by the last stop", name.c_str(), p.version.c_str());
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            Plugin &entry = g_plugins[name];
            entry.version = p.version;
            entry.upgradeid = p.upgradeid;
        }
        plugin_status(name.c_str(), p.version.c_str(), "install_failed", p.upgradeid.c_str());
    }
    for (const auto &[name, version] : installed) {
        auto it = saved.find(name);
        if (it != saved.end() && it->second.installing) continue;
        const bool run = it != saved.end() && it->second.running;
        say("plugin %s %s found installed%s", name.c_str(), version.c_str(), run ? ", starting it again" : "");
        set_status(name, version, "Installed");
        if (!run) continue;
        // A daemon that was killed left its plugins running: keep the one
        // it ran rather than start a second.
        if (it->second.pid > 0 && HgCPluginAdopt(name.c_str(), it->second.pid) == 0) {
            set_status(name, version, "Active");
            report_running(name, version);
        } else if (plugin_run(name.c_str(), version.c_str()) != 0) {
            say("plugin %s %s could not be started again", name.c_str(), version.c_str());
        }
    }
}

void plugins_stop_all() {
    g_shutting_down = true;
    std::vector<std::pair<std::string, std::string>> active;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        for (const auto &[name, p] : g_plugins)
            if (p.status == "Active") active.emplace_back(name, p.version);
    }
    // Each stop waits until the plugin's process group is empty.
    for (const auto &[name, version] : active) plugin_stop(name.c_str(), version.c_str());
    // And whatever else this daemon started, with its children.
    HgCPluginStopAll();
}

}  // namespace qdd
