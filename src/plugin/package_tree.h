// The unpacked package on disk: a private work folder next to the plugin
// folders, the check of what tar left in it, and the move into place. Every
// step looks at entries with lstat and never follows a link.
#pragma once

#include <string>

#include "plugin/package_check.h"

namespace qdq::plugin {

// Removes a file, a link or a whole folder without following links.
void remove_tree(const std::string &path);

// A fresh folder "<plugin root>.<short>.XXXXXX/" (same file system as the
// plugin folders, so the unpacked tree moves in by rename), removed with
// everything in it when the install ends.
class WorkDir {
public:
    explicit WorkDir(const std::string &shortname);
    ~WorkDir();
    WorkDir(const WorkDir &) = delete;
    WorkDir &operator=(const WorkDir &) = delete;
    bool ok() const { return !path_.empty(); }
    const std::string &path() const { return path_; }  // with a trailing '/'

private:
    std::string path_;
};

// Walks an unpacked tree: regular files (one link each) and folders only,
// within `limits`; set-id and sticky bits are cleared. "" when it checks
// out, else the reason.
std::string verify_tree(const std::string &dir, const PackageLimits &limits);

// Puts the checked tree `staged` in place of the plugin folder `dir` (no
// trailing '/'). A real "Data" folder of the previous install is kept (it
// is the plugin's persistent data); everything else of it goes to `trash`.
bool move_into_place(const std::string &staged, const std::string &dir, const std::string &trash);

}  // namespace qdq::plugin
