#include "plugin_state.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>

#include "common/paths.h"
#include "plugin_files.h"

namespace qdd {

namespace {

constexpr const char *kStateFile = "/qdconf/qdquickd/plugins.json";

struct JsonDeleter {
    void operator()(cJSON *j) const { cJSON_Delete(j); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

std::string text_of(const cJSON *object, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "";
}

}  // namespace

bool save_plugins(const SavedPlugins &plugins) {
    Json doc(cJSON_CreateObject());
    for (const auto &[name, p] : plugins) {
        cJSON *item = cJSON_AddObjectToObject(doc.get(), name.c_str());
        cJSON_AddStringToObject(item, "Version", p.version.c_str());
        cJSON_AddStringToObject(item, "UpgradeId", p.upgradeid.c_str());
        cJSON_AddBoolToObject(item, "Running", p.running);
        cJSON_AddBoolToObject(item, "Installing", p.installing);
        cJSON_AddNumberToObject(item, "Pid", p.pid);
    }
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_Print(doc.get()), cJSON_free);
    if (!text) return false;
    const std::filesystem::path file = qdq::path(kStateFile);
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    const std::filesystem::path part = file.string() + ".part";
    {
        std::ofstream out(part, std::ios::trunc);
        out << text.get() << '\n';
        if (!out.flush()) return false;
    }
    std::filesystem::rename(part, file, ec);  // a restart sees the old or the new file, whole
    return !ec;
}

SavedPlugins load_plugins() {
    SavedPlugins out;
    std::ifstream in(qdq::path(kStateFile));
    std::stringstream text;
    text << in.rdbuf();
    Json doc(cJSON_Parse(text.str().c_str()));
    if (!cJSON_IsObject(doc.get())) return out;
    for (const cJSON *item = doc->child; item != nullptr; item = item->next) {
        if (!cJSON_IsObject(item) || item->string == nullptr || !safe_word(item->string, 128, false)) continue;
        SavedPlugin &p = out[item->string];
        p.version = text_of(item, "Version");
        p.upgradeid = text_of(item, "UpgradeId");
        p.running = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(item, "Running"));
        p.installing = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(item, "Installing"));
        const cJSON *pid = cJSON_GetObjectItemCaseSensitive(item, "Pid");
        p.pid = cJSON_IsNumber(pid) && pid->valuedouble > 0 && pid->valuedouble < 1e9 ? pid->valueint : 0;
    }
    return out;
}

std::map<std::string, std::string> installed_plugins() {
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(qdq::path("/qdconf/CPlugin"), ec)) {
        // Hidden names are the installer's work folders, never a plugin.
        if (!entry.is_directory(ec) || entry.is_symlink(ec) || entry.path().filename().string()[0] == '.') continue;
        std::string text;
        if (!read_descriptor_file(entry.path() / "Info.plugin", text)) continue;
        std::istringstream in(text);
        std::string line, name, version;
        while (std::getline(in, line)) {
            std::istringstream words(line);
            std::string key, value;
            if (!std::getline(words, key, ':') || !(words >> value)) continue;
            if (key.find("Name") != std::string::npos && name.empty()) name = value;
            else if (key.find("Version") != std::string::npos && key.find("KernelVersion") == std::string::npos)
                version = value;
        }
        // A plugin's folder is named after its bundle's short name.
        if (safe_word(name.c_str(), 128, false) && short_name(name) == entry.path().filename().string())
            out[name] = version;
    }
    return out;
}

}  // namespace qdd
