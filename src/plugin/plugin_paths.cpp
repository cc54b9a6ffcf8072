#include "plugin/plugin_paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <cstring>

#include "common/log.h"
#include "common/paths.h"
#include "plugin/shellsafe.h"

namespace qdq::plugin {

std::string short_name(const char *name) {
    if (name == nullptr) return "";
    const char *dot = std::strrchr(name, '.');
    return dot != nullptr ? std::string(dot + 1) : std::string(name);
}

std::string plugin_dir(const std::string &shortname) { return qdq::path(std::string(kPluginRoot) + shortname + "/"); }

bool dir_exists(const std::string &rooted) {
    struct stat st;
    return stat(rooted.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool path_exists(const std::string &rooted) {
    struct stat st;
    return lstat(rooted.c_str(), &st) == 0;
}

namespace {
// Absent, or a folder that is not a link.
bool absent_or_folder(const std::string &rooted) {
    struct stat st;
    return lstat(rooted.c_str(), &st) != 0 ? errno == ENOENT : S_ISDIR(st.st_mode);
}
}  // namespace

bool plugin_folders_ok(const std::string &shortname) {
    std::string dir = plugin_dir(shortname), var_dir = qdq::path(kVolatileRoot) + shortname;
    struct stat st;
    const char *bad = nullptr;
    // A plugin that is not there is no threat: its run finds nothing to start.
    if (!absent_or_folder(dir)) bad = "plugin folder";
    else if (!absent_or_folder(dir + "MyPlugin")) bad = "MyPlugin";
    else if (!absent_or_folder(dir + "MyPlugin/Lib")) bad = "MyPlugin/Lib";
    else if (!absent_or_folder(qdq::path(kCommonLib))) bad = "Lib";
    else if (!absent_or_folder(dir + "Data")) bad = "Data";
    else if (!absent_or_folder(var_dir) || !absent_or_folder(var_dir + "/Temp")) bad = "volatile Temp";
    else if (lstat((dir + "Temp").c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
        // The only link allowed: the one the install made to the volatile Temp.
        char target[4096];
        ssize_t n = S_ISLNK(st.st_mode) ? readlink((dir + "Temp").c_str(), target, sizeof target - 1) : -1;
        if (n < 0 || std::string(target, static_cast<std::size_t>(n)) != var_dir + "/Temp") bad = "Temp";
    }
    if (bad != nullptr) QDQ_LOG("plugin %s refused: %s is not a plain folder", shortname.c_str(), bad);
    return bad == nullptr;
}

int run_logged(const char *prefix, const std::string &command) {
    QDQ_LOG("%s%s", prefix, command.c_str());
    return run_shell(command);
}

void prepare_temp_dirs(const std::string &shortname, const char *link_cmd) {
    std::string var_root = qdq::path(kVolatileRoot);
    std::string var_dir = var_root + shortname;
    std::string temp = var_dir + "/Temp";
    for (const std::string *dir : {&var_root, &var_dir, &temp})
        if (!dir_exists(*dir)) run_logged("cmdbuf:", "mkdir " + sq(*dir));
    std::string link = plugin_dir(shortname) + "Temp";
    if (!path_exists(link)) run_logged("cmdbuf:", std::string(link_cmd) + " " + sq(temp) + " " + sq(link));
}

}  // namespace qdq::plugin
