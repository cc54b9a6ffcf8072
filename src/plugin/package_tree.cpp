#include "plugin/package_tree.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/log.h"
#include "common/paths.h"
#include "plugin/plugin_paths.h"

namespace qdq::plugin {

namespace {

constexpr int kMaxDepth = 64;

std::vector<std::string> names_in(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    return names;
}

struct Walk {
    PackageLimits limits;
    std::uint64_t entries = 0, bytes = 0;

    std::string visit(const std::string &path, int depth) {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) return "an entry that cannot be read";
        if (++entries > limits.entries) return "too many entries";
        if (S_ISREG(st.st_mode)) {
            if (st.st_nlink != 1) return "a hard link";
            bytes += static_cast<std::uint64_t>(st.st_size);
            if (bytes > limits.bytes) return "too many bytes";
            if ((st.st_mode & 07000) != 0 && chmod(path.c_str(), st.st_mode & 0777) != 0) return "a set-id file";
            return "";
        }
        if (!S_ISDIR(st.st_mode)) return "an entry that is neither file nor folder";
        if (depth > kMaxDepth) return "folders nested too deep";
        // The owner must be able to walk and remove it; no set-id folders.
        if (chmod(path.c_str(), (st.st_mode & 0777) | S_IRWXU) != 0) return "a folder that cannot be opened";
        for (const std::string &n : names_in(path)) {
            std::string why = visit(path + "/" + n, depth + 1);
            if (!why.empty()) return why;
        }
        return "";
    }
};

void remove_below(const std::string &path, int depth) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode) && depth <= kMaxDepth * 2) {
        chmod(path.c_str(), S_IRWXU);
        for (const std::string &n : names_in(path)) remove_below(path + "/" + n, depth + 1);
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

}  // namespace

void remove_tree(const std::string &path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    remove_below(p, 0);
}

WorkDir::WorkDir(const std::string &shortname) {
    std::string pattern = qdq::path(kPluginRoot) + "." + shortname + ".XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = std::string(buf.data()) + "/";
    else QDQ_LOG("cannot create the work folder %s", pattern.c_str());
}

WorkDir::~WorkDir() {
    if (ok()) remove_tree(path_);
}

std::string verify_tree(const std::string &dir, const PackageLimits &limits) {
    Walk walk{limits};
    for (const std::string &n : names_in(dir)) {
        std::string why = walk.visit(dir + "/" + n, 1);
        if (!why.empty()) return why;
    }
    return "";
}

bool move_into_place(const std::string &staged, const std::string &dir, const std::string &trash) {
    struct stat st;
    if (lstat(dir.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            std::string data = dir + "/Data", staged_data = staged + "/Data";
            if (lstat(data.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
                remove_tree(staged_data);
                if (rename(data.c_str(), staged_data.c_str()) != 0) return false;
            }
            if (rename(dir.c_str(), trash.c_str()) != 0) return false;
        } else if (unlink(dir.c_str()) != 0) {
            return false;
        }
    }
    return rename(staged.c_str(), dir.c_str()) == 0;
}

}  // namespace qdq::plugin
