// HgCPluginRun: starts an installed C plugin from its MyPlugin directory,
// as its own user and under file, memory and CPU limits when asked.
//
// The log lines are the system's own, with the command it describes for
// each step; the steps themselves run without a shell (a shell's ulimit and
// a setuidgid tool differ from host to host): the program is forked and
// confined between fork and exec (plugin_spawn), and tracked by its process
// group (plugin_procs).
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <string>

#include "common/abi_guard.h"
#include "common/log.h"
#include "common/paths.h"
#include "common/socket.h"
#include "plugin/local_origin.h"
#include "plugin/own_user.h"
#include "plugin/plugin_paths.h"
#include "plugin/plugin_procs.h"
#include "plugin/plugin_spawn.h"
#include "plugin/shellsafe.h"

namespace {

using namespace qdq::plugin;

// D/MyPlugin, opened without following a link at D or at MyPlugin.
qdq::Fd open_mydir(const std::string &s) {
    std::string dir = plugin_dir(s);
    dir.pop_back();  // no trailing '/': it would follow a link
    qdq::Fd d(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!d) return qdq::Fd();
    return qdq::Fd(openat(d.get(), "MyPlugin", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// The CPU limiter watches the plugin's own pid (never every process that
// has the entry file's name); without the tool the plugin runs unlimited.
void start_limiter(const std::string &s, pid_t plugin, int cpu) {
    if (cpu == 1) cpu = 2;
    const std::string percent = std::to_string(cpu / 2), target = std::to_string(plugin);
    const std::string tool = find_program("cpulimit");
    if (tool.empty()) {
        QDQ_LOG("cpulimit not found: %s runs without its CPU limit of %s%%", s.c_str(), percent.c_str());
        return;
    }
    SpawnPlan plan;
    plan.dir = "/";
    plan.argv = {tool, "-p", target, "-l", percent, "-z", "-q"};
    QDQ_LOG("cpulimit,cmdbuf=%s \n", ("cpulimit -p " + target + " -l " + percent + " -z -q").c_str());
    std::string why;
    const pid_t pid = spawn(plan, why);
    if (pid > 0) track(s, pid, true);
    else QDQ_LOG("cpulimit not started: %s", why.c_str());
}

// An "app": the system's answer is the status of a background start, so a
// start that cannot happen is logged and still answered 0.
int start_app(const std::string &s, int mydir, const std::string &entry, int cpu, int vram, int sockets) {
    if (entry.empty() || mydir < 0) {
        QDQ_LOG("HgCPluginRun: %s, nothing started", entry.empty() ? "no entry file" : "no MyPlugin directory");
        return 0;
    }
    SpawnPlan plan;
    std::string command = "./" + entry + "&";
    bool user_ok = true;
    if (vram != -1) {
        OwnUser user;
        user_ok = prepare_own_user(s, mydir, user);
        plan.switch_user = true;
        plan.uid = user.uid;
        plan.gid = user.gid;
        command = "setuidgid " + s + " " + command;
    }
    if (vram < 0 && sockets < 0) {
        QDQ_LOG("without resource limit,cmd:%s", command.c_str());
    } else {
        const std::string memory = vram >= 1 ? std::to_string(vram) : vram == 0 ? "unlimited" : "";
        plan.nofile = sockets == 0 ? 1024 : sockets;  // negative: no open-file limit
        plan.vram_kib = vram >= 0 ? vram : -1;
        QDQ_LOG("with resource limit,cmd:%s",
                ("ulimit -n " + std::to_string(sockets == 0 ? 1024 : sockets) + " -v " + memory + " ;" + command)
                    .c_str());
    }
    if (!user_ok) {
        QDQ_LOG("HgCPluginRun: %s not started", entry.c_str());
        return 0;
    }
    plan.dirfd = mydir;  // the directory opened above, not its path again
    plan.argv = {"./" + entry};
    std::string why;
    const pid_t pid = spawn(plan, why);
    if (pid < 0) {
        QDQ_LOG("HgCPluginRun: %s not started: %s", entry.c_str(), why.c_str());
        return 0;
    }
    track(s, pid);
    QDQ_LOG("HgCPluginRun: %s started, pid %d", entry.c_str(), static_cast<int>(pid));
    if (cpu > 0) start_limiter(s, pid, cpu);
    return 0;
}

int run_plugin(const char *name, const char *type, char *entryfile, int cpu, int vram, int sockets) {
    const std::string s = short_name(name);
    prepare_temp_dirs(s, "ln -sf");
    // Nothing is made executable, given away or started through a link.
    if (!plugin_folders_ok(s)) return -1;
    const std::string fullpath = qdq::path(std::string(kPluginRoot) + s + "/MyPlugin");
    QDQ_LOG("fullpath:%s", fullpath.c_str());
    // Nothing here changes the daemon's working directory: every thread shares it.
    qdq::Fd mydir = open_mydir(s);
    QDQ_LOG("cmdbuf:chmod +x *");
    if (mydir) make_executable(mydir.get());

    const char *slash = std::strrchr(entryfile, '/');
    if (slash != nullptr) std::memmove(entryfile, slash + 1, std::strlen(slash + 1) + 1);
    QDQ_LOG("filename:%s", entryfile);

    if (std::strcmp(type, "app") == 0) return start_app(s, mydir.get(), entryfile, cpu, vram, sockets);
    if (std::strcmp(type, "ko") != 0) return 0;  // what the shell answers to an empty command
    // A module gets no limits: they would apply to insmod, not to the module.
    const std::string command = "insmod " + sq(fullpath);  // the directory, as the packages expect
    QDQ_LOG("without resource limit,cmd:%s", command.c_str());
    return run_shell(command);
}

}  // namespace

extern "C" QDQ_API int HgCPluginRun(const char *name, const char *version, const char *type, char *entryfile, int cpu,
                                    int vram, int sockets) {
    (void)version;
    // A plugin a local client installed runs as a user of its own, never as
    // the daemon's user, and loads no kernel module.
    const bool local = qdq::plugin_local_origin(name);
    if (local && vram < 0) vram = 0;
    if (local && sockets < 0) sockets = 0;
    if (local && type != nullptr && std::strcmp(type, "ko") == 0) {
        QDQ_LOG("HgCPluginRun: refused, a kernel module installed by a local order");
        return -1;
    }
    QDQ_LOG("HgCPluginRun start, pluginname:%s,filename:%s,cpulimit=%d,vRamLimit=%d,socketLimit=%d",
            name != nullptr ? name : "", entryfile != nullptr ? entryfile : "", cpu, vram, sockets);
    // Name and entry file become a user name, a directory and a program
    // path: plain words only.
    if (!is_plain(name, false) || !is_plain(short_name(name).c_str(), false) || type == nullptr ||
        entryfile == nullptr || (entryfile[0] != '\0' && !is_plain(entryfile, true))) {
        QDQ_LOG("HgCPluginRun: refused, unsafe name or entry file");
        return -1;
    }
    const int rc =
        qdq::guard_entry("HgCPluginRun", -1, [&] { return run_plugin(name, type, entryfile, cpu, vram, sockets); });
    QDQ_LOG("HgCPluginRun end ret:%d", rc);
    return rc;
}

extern "C" QDQ_API int HgCPluginPid(const char *name) {
    if (name == nullptr) return 0;
    return qdq::guard_entry("HgCPluginPid", 0, [&] { return static_cast<int>(running_pid(short_name(name))); });
}

extern "C" QDQ_API int HgCPluginAdopt(const char *name, int pid) {
    if (name == nullptr || !is_plain(name, false)) return -1;
    return qdq::guard_entry("HgCPluginAdopt", -1, [&] {
        if (!adopt(short_name(name), static_cast<pid_t>(pid))) return -1;
        QDQ_LOG("HgCPluginAdopt: %s keeps running, pid %d", name, pid);
        return 0;
    });
}
