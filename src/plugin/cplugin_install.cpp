// HgDownLoadCpluginAndProcess: fetches a C plugin package (or takes a system
// package from the local file system), checks and unpacks it in a work
// folder of its own, checks its descriptor, moves it into the plugin
// directory, prepares libraries, data and scratch directories,
// reports each step through HgSetCpluginStatus and starts the plugin when
// asked. Every value that reaches a command is checked or quoted first.
#include <sys/stat.h>

#include <cstring>
#include <exception>
#include <string>

#include "common/abi_guard.h"
#include "common/log.h"
#include "common/paths.h"
#include "plugin/descriptor.h"
#include "plugin/download.h"
#include "plugin/package_check.h"
#include "plugin/package_tree.h"
#include "plugin/plugin_log.h"
#include "plugin/plugin_paths.h"
#include "plugin/shellsafe.h"

namespace {

using namespace qdq::plugin;

template <std::size_t N>
void terminate(char (&field)[N]) {
    field[N - 1] = '\0';
}

class Install {
public:
    explicit Install(const cplugininstinfo &request) : rec_(request) {
        // The host's record may not be terminated; the copy always is.
        terminate(rec_.name);
        terminate(rec_.version);
        terminate(rec_.url);
        terminate(rec_.type);
        terminate(rec_.right);
        terminate(rec_.visibility);
        terminate(rec_.architecture);
        terminate(rec_.kernelversion);
        terminate(rec_.entryfile);
        terminate(rec_.provides);
        terminate(rec_.description);
        terminate(rec_.upgradeid);
        system_ = std::strstr(rec_.url, "sys_cplugin") != nullptr;
    }

    void run() {
        if (!request_ok()) return failed();
        shortname_ = short_name(rec_.name);
        QDQ_LOG("###tmppluginname :%s", shortname_.c_str());
        std::string root = qdq::path(kPluginRoot);
        if (!dir_exists(root)) {
            QDQ_LOG("Open dir error..., create");
            run_logged("cmdbuf:", "mkdir " + sq(root));
        }
        dir_ = plugin_dir(shortname_);
        // Everything is fetched and unpacked into a fresh folder of its own
        // and moved into the plugin folder only once it checks out: nothing
        // of a refused package (and nothing a link could redirect) lands.
        WorkDir work(shortname_);
        if (!work.ok()) return failed();
        work_ = work.path();
        stage_ = work_ + "new";
        plugin_size_ = take_plugin_size(rec_.name, rec_.url);
        limits_ = package_limits(plugin_size_);
        std::string package;
        if (!(system_ ? system_package(package) : download_package(package))) return;
        if (!untar("-zxf", package, stage_, true)) return;
        if (read_descriptor_file(stage_ + "/Info.plugin", rec_) != DescResult::Ok || !descriptor_ok()) return failed();
        if (!put_in_place()) return failed();
        link_libraries();
        if (HgAddCpluginToList(&rec_) != 0) return;
        status("Installed");
        prepare_data_dir();
        prepare_temp_dirs(shortname_, "ln -s");
        if (rec_.runflag != 0 && !system_) start();
    }

    void failed() { status("install_failed"); }

private:
    void status(const char *text) { HgSetCpluginStatus(rec_.name, rec_.version, text, rec_.upgradeid); }

    // Names, versions and URLs come from the platform; nothing runs unless
    // every one of them is a plain word (or a URL that quotes safely).
    bool request_ok() {
        const char *bad = nullptr;
        std::string shortname = short_name(rec_.name);
        // "Lib" would make the plugin's folder the common library folder.
        if (!is_plain(rec_.name, false) || !is_plain(shortname.c_str(), false) || shortname == "Lib")
            bad = "name";
        else if (rec_.version[0] != '\0' && !is_plain(rec_.version, false))
            bad = "version";
        else if (system_ ? !is_plain(rec_.url, true) : !is_safe_url(rec_.url))
            bad = "url";
        if (bad != nullptr) QDQ_LOG("HgDownLoadCpluginAndProcess: refused request, unsafe %s", bad);
        return bad == nullptr;
    }

    // The descriptor comes from the package: its version and entry file are
    // held to the same rule before anything is started from them.
    bool descriptor_ok() {
        const char *bad = nullptr;
        if (rec_.version[0] != '\0' && !is_plain(rec_.version, false))
            bad = "version";
        else if (rec_.entryfile[0] != '\0' && !is_plain(rec_.entryfile, true))
            bad = "entry file";
        if (bad != nullptr) QDQ_LOG("HgDownLoadCpluginAndProcess: refused descriptor, unsafe %s", bad);
        return bad == nullptr;
    }

    // The text after the last '/' of the URL, or false (logged, install_failed).
    bool file_name(std::string &out, bool quiet = false) {
        const char *slash = std::strrchr(rec_.url, '/');
        if (slash == nullptr || slash[1] == '\0') {
            if (quiet) return false;
            QDQ_LOG("don't find tar filename");
            failed();
            return false;
        }
        out = slash + 1;
        if (!quiet) QDQ_LOG("tar name %s", out.c_str());
        return true;
    }

    // Checks what the archive holds, unpacks it into the fresh folder `into`
    // (owners and modes from the archive are not kept) and checks what tar
    // left there.
    bool untar(const char *flags, const std::string &archive, const std::string &into, bool gzipped) {
        std::string why = check_package(archive, gzipped, limits_);
        if (why.empty()) {
            if (mkdir(into.c_str(), 0755) != 0) why = "no folder to unpack into";
        }
        if (why.empty()) {
            int rc = run_logged("cmdbuf:", std::string("tar ") + flags + " " + sq(archive) + " -C " + sq(into) +
                                               " --no-same-owner --no-same-permissions");
            QDQ_LOG("tar system return:%d", rc);
            why = rc == 0 ? verify_tree(into, limits_) : "tar failed";
        }
        if (why.empty()) return true;
        QDQ_LOG("app untar failed!");
        QDQ_LOG("package of %s refused: %s", rec_.name, why.c_str());
        failed();
        return false;
    }

    bool system_package(std::string &package) {
        std::string name;
        if (!file_name(name)) return false;
        package = qdq::path(rec_.url);
        return true;
    }

    bool download_package(std::string &package) {
        Download d;
        d.name = rec_.name;
        d.version = rec_.version;
        d.upgradeid = rec_.upgradeid;
        d.url = rec_.url;
        d.dir = work_ + "dl/";
        d.log = work_ + "wget.log";
        d.expected = plugin_size_;
        file_name(d.file, true);
        int rc = mkdir(d.dir.c_str(), 0755) == 0 ? download(d) : -1;
        QDQ_LOG("download system return:%d", rc);
        if (rc != 0) {
            QDQ_LOG("download cplugin failed!");
            status("X_BROADCOM_COM_DnldFailed");
            HgDelCplugin(rec_.name, rec_.version);
            return false;
        }
        QDQ_LOG("download cplugin success!");
        status("Installing");
        std::string file;
        if (!file_name(file)) return false;
        package = d.dir + file;
        if (std::strstr(rec_.url, "tar") != nullptr) {
            // A plain tar wraps the real package, named <stem>__QD__.cpk.
            // (Without ".tar" in the name the file is the package itself.)
            std::size_t at = file.find(".tar");
            if (at != std::string::npos) {
                std::string outer = work_ + "outer";
                if (!untar("-xf", package, outer, false)) return false;
                file = file.substr(0, at) + "__QD__.cpk";
                QDQ_LOG("taroldname:%s", file.c_str());
                package = outer + "/" + file;
            }
        }
        return true;
    }

    // The checked tree replaces the plugin folder (its Data stays).
    bool put_in_place() {
        std::string dir = dir_.substr(0, dir_.size() - 1);
        if (!move_into_place(stage_, dir, work_ + "old")) {
            QDQ_LOG("cannot move the package into %s", dir.c_str());
            return false;
        }
        return plugin_folders_ok(shortname_);
    }

    // Every library of the plugin is linked by name into the common directory.
    void link_libraries() {
        std::string libdir = dir_ + "MyPlugin/Lib/";
        if (!dir_exists(libdir)) return;
        QDQ_LOG("libdir:%s", libdir.c_str());
        std::string common = qdq::path(kCommonLib);
        if (!dir_exists(common)) run_logged("cmdbuf:", "mkdir " + sq(common));
        run_logged("cmdbuf:", "ln -sf " + sq(libdir) + "* " + sq(common));
    }

    void prepare_data_dir() {
        std::string data = dir_ + "Data";
        if (dir_exists(data)) {
            QDQ_LOG("data dir is already create");
            return;
        }
        run_logged("cmdbuf:", "mkdir " + sq(data));
        if (std::strstr(rec_.name, "b01") != nullptr) {
            QDQ_LOG("b01, copy myplugin to data");
            run_logged("cmdbuf:", "cp " + sq(dir_ + "MyPlugin/") + "* " + sq(dir_ + "Data/"));
        }
    }

    void start() {
        if (!plugin_folders_ok(shortname_)) return failed();
        // Only plugins of Right "user" are held to their limits; the
        // others are trusted and run unlimited.
        if (std::strcmp(rec_.right, "user") != 0) rec_.cpu = rec_.virtualram = rec_.socket = -1;
        int rc =
            HgCPluginRun(rec_.name, rec_.version, rec_.type, rec_.entryfile, rec_.cpu, rec_.virtualram, rec_.socket);
        if (rc != 0) {
            HgSavePluginProcessLog("Run C Plugin failed, name:%s, version:%s, status:Idle", rec_.name, rec_.version);
            return;
        }
        status("Active");
        HgSavePluginProcessLog("Run C Plugin success, name:%s, version:%s, status:Active", rec_.name, rec_.version);
    }

    cplugininstinfo rec_;
    bool system_ = false;
    std::string shortname_;
    std::string dir_;    // the plugin directory, rooted, with a trailing '/'
    std::string work_;   // the install's own folder, with a trailing '/'
    std::string stage_;  // the unpacked package, in work_
    PackageLimits limits_{};
    long long plugin_size_ = 0;
};

}  // namespace

extern "C" QDQ_API void *HgDownLoadCpluginAndProcess(void *record) {
    if (record == nullptr) return nullptr;
    // The thread works on its own copy: the starter's record may go away.
    Install install(*static_cast<const cplugininstinfo *>(record));
    if (!qdq::guard_entry("HgDownLoadCpluginAndProcess", false, [&] {
            install.run();
            return true;
        }))
        install.failed();
    return nullptr;
}
