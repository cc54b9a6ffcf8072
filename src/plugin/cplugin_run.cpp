// HgCPluginRun: starts an installed C plugin from its MyPlugin directory,
// as its own user and under file, memory and CPU limits when asked.
#include <cstring>
#include <exception>
#include <string>

#include "common/log.h"
#include "common/paths.h"
#include "plugin/local_origin.h"
#include "plugin/plugin_paths.h"
#include "plugin/shellsafe.h"

namespace {

using namespace qdq::plugin;

// Logs "<prefix><command><suffix>", then runs the command.
void run_noted(const char *prefix, const char *suffix, const std::string &command) {
    QDQ_LOG("%s%s%s", prefix, command.c_str(), suffix);
    run_shell(command);
}

// The plugin's own user owns its data and scratch directories.
void prepare_own_user(const std::string &s) {
    run_noted("adduser cmdbuf=", "\n", "adduser " + s + " -DH  ");
    for (const char *sub : {"Data", "Temp"})
        run_noted("chown: cmdbuf=", "\n",
                  "chown -R " + s + " " + sq(qdq::path(std::string(kPluginRoot) + s + "/" + sub)));
    QDQ_LOG("chmod 777 /var\n");
    run_shell("chmod 777 " + sq(qdq::path("/var")));
    // The user name stands as an extra operand, as it always has.
    run_noted("chmod: cmdbuf=", "\n", "chmod 777 " + s + " " + sq(qdq::path(std::string(kVolatileRoot) + s + "/Temp")));
}

// The start command of an "app"; the CPU limiter, when asked for, starts first.
std::string app_command(const std::string &s, const std::string &entry, int cpu, int vram) {
    if (cpu > 0) {
        if (cpu == 1) cpu = 2;
        // The limiter is up before the plugin it watches.
        run_noted("cpulimit,cmdbuf=", " \n", "cpulimit -e " + entry + " -b -l " + std::to_string(cpu / 2) + " &");
    }
    if (vram == -1) return "./" + entry + "&";
    prepare_own_user(s);
    return "setuidgid " + s + " ./" + entry + "&";
}

int run_plugin(const char *name, const char *type, char *entryfile, int cpu, int vram, int sockets) {
    std::string s = short_name(name);
    prepare_temp_dirs(s, "ln -sf");
    // Nothing is made executable, given away or started through a link.
    if (!plugin_folders_ok(s)) return -1;
    std::string fullpath = qdq::path(std::string(kPluginRoot) + s + "/MyPlugin");
    QDQ_LOG("fullpath:%s", fullpath.c_str());
    // The process's working directory is shared by every thread of the
    // daemon: change it only inside the shell that needs it.
    std::string in_dir = "cd " + sq(fullpath) + " && ";
    run_logged("cmdbuf:", in_dir + "chmod +x *");

    const char *slash = std::strrchr(entryfile, '/');
    if (slash != nullptr) std::memmove(entryfile, slash + 1, std::strlen(slash + 1) + 1);
    QDQ_LOG("filename:%s", entryfile);

    std::string command;
    if (std::strcmp(type, "ko") == 0) {
        command = "insmod " + sq(fullpath);  // the directory, as the packages expect
    } else if (std::strcmp(type, "app") == 0) {
        if (entryfile[0] == '\0') {
            QDQ_LOG("HgCPluginRun: no entry file");
            return -1;
        }
        command = app_command(s, entryfile, cpu, vram);
    }

    std::string line;
    if (vram < 0 && sockets < 0) {
        line = command;
        QDQ_LOG("without resource limit,cmd:%s", line.c_str());
    } else {
        std::string memory = vram >= 1 ? std::to_string(vram) : vram == 0 ? "unlimited" : "";
        line = "ulimit -n " + std::to_string(sockets == 0 ? 1024 : sockets) + " -v " + memory + " ;" + command;
        QDQ_LOG("with resource limit,cmd:%s", line.c_str());
    }
    if (line.empty()) return 0;  // what the shell answers to an empty command
    return run_shell(in_dir + "{ " + line + "\n}");
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
    // path in shell commands: plain words only.
    if (!is_plain(name, false) || !is_plain(short_name(name).c_str(), false) || type == nullptr ||
        entryfile == nullptr || (entryfile[0] != '\0' && !is_plain(entryfile, true))) {
        QDQ_LOG("HgCPluginRun: refused, unsafe name or entry file");
        return -1;
    }
    int rc = -1;
    try {
        rc = run_plugin(name, type, entryfile, cpu, vram, sockets);
    } catch (const std::exception &e) {
        QDQ_LOG("HgCPluginRun: %s", e.what());
        rc = -1;
    }
    QDQ_LOG("HgCPluginRun end ret:%d", rc);
    return rc;
}
