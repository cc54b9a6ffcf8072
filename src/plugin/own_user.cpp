#include "plugin/own_user.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/log.h"
#include "common/paths.h"
#include "common/socket.h"
#include "plugin/plugin_paths.h"
#include "qdquick/qdplatform.h"

namespace qdq::plugin {

namespace {

constexpr int kMaxDepth = 32;

struct DirCloser {
    void operator()(DIR *d) const { closedir(d); }
};

// Calls fn(dirfd, name, stat) for each entry of the open directory.
template <typename Fn>
void each_entry(int dirfd, Fn fn) {
    int copy = fcntl(dirfd, F_DUPFD_CLOEXEC, 3);
    if (copy < 0) return;
    std::unique_ptr<DIR, DirCloser> dir(fdopendir(copy));
    if (!dir) {
        close(copy);
        return;
    }
    rewinddir(dir.get());  // the copy shares its offset with dirfd
    while (const dirent *e = readdir(dir.get())) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        struct stat st;
        if (fstatat(dirfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) fn(dirfd, e->d_name, st);
    }
}

// "chown -R": the owner of a folder and of everything in it. Links are
// changed themselves, never followed.
void chown_tree(int dirfd, uid_t uid, int depth) {
    if (fchown(dirfd, uid, static_cast<gid_t>(-1)) != 0) QDQ_LOG("chown: %s", std::strerror(errno));
    each_entry(dirfd, [&](int at, const char *name, const struct stat &st) {
        if (S_ISDIR(st.st_mode) && depth < kMaxDepth) {
            qdq::Fd sub(openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (sub) chown_tree(sub.get(), uid, depth + 1);
        } else {
            fchownat(at, name, uid, static_cast<gid_t>(-1), AT_SYMLINK_NOFOLLOW);
        }
    });
}

void chown_folder(const std::string &folder, uid_t uid) {
    qdq::Fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
        QDQ_LOG("chown: %s is not a folder, left alone", folder.c_str());
        return;
    }
    chown_tree(fd.get(), uid, 0);
}

// The plugin's user must pass through /var to its scratch folder. Only the
// search right is added; /var never becomes writable for everyone.
void make_searchable(const std::string &folder) {
    struct stat st;
    if (lstat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 0111) != 0111)
        chmod(folder.c_str(), (st.st_mode & 07777) | 0111);
}

bool lookup(const std::string &s, OwnUser &out) {
    struct passwd pw, *found = nullptr;
    std::vector<char> buf(16384);
    if (getpwnam_r(s.c_str(), &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr) return false;
    out.uid = pw.pw_uid;
    out.gid = pw.pw_gid;
    return out.uid != 0 && out.gid != 0;
}

}  // namespace

// The mode of entry `name` of folder `at`, through a descriptor opened
// without following a link: fchmodat's AT_SYMLINK_NOFOLLOW is refused by
// some C libraries and emulators, and a link must never be followed.
void chmod_entry(int at, const char *name, mode_t mode) {
    qdq::Fd fd(openat(at, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (fd && fstat(fd.get(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) fchmod(fd.get(), mode);
}

void make_executable(int mydir) {
    each_entry(mydir, [](int at, const char *name, const struct stat &st) {
        if (name[0] == '.' || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) return;
        chmod_entry(at, name, (st.st_mode & 07777) | 0111);
    });
}

bool prepare_own_user(const std::string &s, int mydir, OwnUser &out) {
    QDQ_LOG("adduser cmdbuf=%s\n", ("adduser " + s + " -DH  ").c_str());
    if (CreatePluginUser(s.c_str()) != 0 || !lookup(s, out)) {
        QDQ_LOG("HgCPluginRun: no plugin user %s", s.c_str());
        return false;
    }
    const std::string d = qdq::path(std::string(kPluginRoot) + s + "/");
    const std::string temp = qdq::path(std::string(kVolatileRoot) + s + "/Temp");
    for (const char *sub : {"Data", "Temp"})
        QDQ_LOG("chown: cmdbuf=%s\n", ("chown -R " + s + " " + d + sub).c_str());
    chown_folder(d + "Data", out.uid);
    // D/Temp is the link to the scratch folder; its target is what the user gets.
    chown_folder(temp, out.uid);
    QDQ_LOG("chmod 777 /var\n");
    for (const char *folder : {"/var", "/var/CPlugin"})
        make_searchable(qdq::path(folder));
    make_searchable(qdq::path(std::string(kVolatileRoot) + s));
    QDQ_LOG("chmod: cmdbuf=%s\n", ("chmod 777 " + s + " " + temp).c_str());
    qdq::Fd scratch(open(temp.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (scratch) fchmod(scratch.get(), 0777);
    // The extra operand names an entry of MyPlugin (the described command
    // ran there); anything else, a link above all, is left alone.
    if (mydir >= 0) chmod_entry(mydir, s.c_str(), 0777);
    return true;
}

}  // namespace qdq::plugin
