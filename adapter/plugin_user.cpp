// CreatePluginUser: the system user a confined plugin runs as. The tool is
// chosen by what the host has: useradd (Debian and most distributions) or
// busybox adduser (the gateway). Plugin users carry a fixed comment, so an
// account of the system that happens to share a plugin's name is never
// taken for one.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "adapter_io.h"
#include "qdquick/qdplatform.h"

namespace {

constexpr const char *kComment = "qdquick plugin";

// Names useradd and busybox accept alike, and never an option.
bool valid_name(const char *name) {
    const std::size_t n = strnlen(name, 33);
    if (n == 0 || n > 32 || name[0] == '-' || name[0] == '.') return false;
    for (const char *p = name; *p != '\0'; ++p)
        if (std::strchr("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-", *p) == nullptr)
            return false;
    return true;
}

// 1: a plugin user; 0: no such account; -1: an account that is not one.
int account(const char *name) {
    struct passwd pw, *found = nullptr;
    std::vector<char> buf(16384);
    if (getpwnam_r(name, &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr) return 0;
    return std::strcmp(pw.pw_gecos, kComment) == 0 && pw.pw_uid != 0 ? 1 : -1;
}

std::string find_tool(const char *tool) {
    std::string dirs = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
    dirs += ":/usr/sbin:/sbin:/usr/bin:/bin";
    for (std::size_t from = 0; from < dirs.size();) {
        std::size_t colon = dirs.find(':', from);
        if (colon == std::string::npos) colon = dirs.size();
        std::string dir = dirs.substr(from, colon - from);
        from = colon + 1;
        if (dir.empty() || dir[0] != '/') continue;
        std::string file = dir + "/" + tool;
        struct stat st;
        if (stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(file.c_str(), X_OK) == 0) return file;
    }
    return "";
}

int create(const char *name) {
    const std::string useradd = find_tool("useradd");
    if (!useradd.empty()) {
        std::string nologin = find_tool("nologin");
        if (nologin.empty()) nologin = "/bin/false";
        return RunSystemCmd(nullptr, useradd.c_str(), "--system", "--no-create-home", "--user-group", "--shell",
                            nologin.c_str(), "--comment", kComment, name, "");
    }
    const std::string adduser = find_tool("adduser");
    if (adduser.empty()) {
        qdp::warn("CreatePluginUser: neither useradd nor adduser found");
        return -1;
    }
    // busybox: -D no password, -H no home, -S system user (shell /bin/false)
    return RunSystemCmd(nullptr, adduser.c_str(), "-D", "-H", "-S", "-g", kComment, name, "");
}

}  // namespace

extern "C" QDQ_API int CreatePluginUser(const char *name) {
    if (name == nullptr || !valid_name(name)) {
        qdp::warn("CreatePluginUser: not a user name");
        return -1;
    }
    return qdp::guard("CreatePluginUser", -1, [&] {
        int state = account(name);
        if (state == 0) {
            create(name);
            state = account(name);
        }
        if (state == 1) return 0;
        qdp::warn(state < 0 ? "CreatePluginUser: %s is an account of the system, not a plugin user"
                            : "CreatePluginUser: cannot create %s",
                  name);
        return -1;
    });
}
