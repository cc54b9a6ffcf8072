#include "plugin/shellsafe.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace qdq::plugin {

namespace {
bool leading_dash_or_climb(const char *text) { return text[0] == '-' || std::strstr(text, "..") != nullptr; }
}  // namespace

bool is_plain(const char *text, bool allow_slash) {
    if (text == nullptr || text[0] == '\0' || leading_dash_or_climb(text)) return false;
    for (const char *p = text; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  std::strchr("._-+:@,=%", c) != nullptr || (allow_slash && c == '/');
        if (!ok) return false;
    }
    return true;
}

bool is_safe_url(const char *text) {
    if (text == nullptr || text[0] == '\0' || leading_dash_or_climb(text)) return false;
    for (const char *p = text; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c <= ' ' || c >= 0x7f || std::strchr("'\"`$\\;|<>", c) != nullptr) return false;
    }
    return true;
}

std::string sq(const std::string &text) {
    for (unsigned char c : text)
        if (c == '\'' || c < ' ' || c == 0x7f) throw std::invalid_argument("unquotable shell word");
    return "'" + text + "'";
}

// Not system(): safeSystem sets SIGCHLD to "ignore" for the whole process, and
// from then on system() can no longer see any child's exit status, so every
// download and unpack would look failed. The shell reports its status on the
// pipe instead. The command's own output goes to our standard error (as with
// system()), so a plugin started in the background never holds the pipe.
int run_shell(const std::string &command) {
    std::string wrapped = "{ " + command + "\n} </dev/null >&2; echo \"$?\"";
    FILE *fp = popen(wrapped.c_str(), "re");
    if (fp == nullptr) return -1;
    char line[32];
    int status = -1;
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        char *end = nullptr;
        long code = std::strtol(line, &end, 10);
        if (end != line && code >= 0 && code <= 255) status = static_cast<int>(code) << 8;
    }
    pclose(fp);  // the status is unreliable here for the same reason
    return status;
}

}  // namespace qdq::plugin
