#include "plugin/plugin_paths.h"

#include <sys/stat.h>

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
