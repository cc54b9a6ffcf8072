// Starts a plugin's program without a shell. Everything that confines it is
// done in the child between fork and exec, the same on every shell and
// every libc: a session and process group of its own, the working
// directory, the limits (setrlimit) and the user (setgroups, setgid,
// setuid). A step that fails ends the child before the program runs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qdq::plugin {

struct SpawnPlan {
    std::string dir;                // working directory; argv[0] may be relative to it
    int dirfd = -1;                 // or an open one (taken instead of dir)
    std::vector<std::string> argv;  // argv[0]: the program
    long vram_kib = -1;             // address space in KiB: -1 keep, 0 unlimited
    long nofile = -1;               // open files: -1 keep
    bool switch_user = false;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The pid of the started program (the leader of its new process group), or
// -1 with `why` telling which step failed.
pid_t spawn(const SpawnPlan &plan, std::string &why);

// The full path of `program` found on $PATH (executable regular file), or "".
std::string find_program(const char *program);

}  // namespace qdq::plugin
