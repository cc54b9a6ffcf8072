// getUciOptionValue: reads one option from a UCI file "/etc/config/<package>":
//   config <type> ['<name>']
//       option <name> '<value>'
// Quotes are optional, single or double; '#' starts a comment. A section is
// found by its name, or by its type when it has no name.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "adapter_io.h"
#include "common/paths.h"
#include "qdquick/qdplatform.h"

namespace {

// The first three words of a line, which is all a config or option line
// has. (A fixed array: a std::vector<std::string> instantiation here would
// be exported from the library as a weak symbol.)
struct Words {
    std::string w[3];
    int count = 0;
};

// Splits a line the way UCI does: quoted parts join the word they touch, a
// backslash outside single quotes takes the next character as is.
Words split_words(std::string_view line) {
    Words words;
    std::size_t i = 0;
    while (i < line.size() && words.count < 3) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        if (i == line.size() || line[i] == '#') break;
        std::string &word = words.w[words.count++];
        char quote = 0;
        for (; i < line.size(); ++i) {
            char c = line[i];
            if (quote == 0 && (c == ' ' || c == '\t')) break;
            if (quote == 0 && (c == '\'' || c == '"')) {
                quote = c;
            } else if (c == quote) {
                quote = 0;
            } else if (c == '\\' && quote != '\'' && i + 1 < line.size()) {
                word.push_back(line[++i]);
            } else {
                word.push_back(c);
            }
        }
    }
    return words;
}

// Reads the option; false when the file, the section or the option is missing.
bool find_option(const std::string &file, const char *section, const char *option,
                 std::string &value) {
    qdp::File f = qdp::open_read(file);
    if (!f) {
        if (errno != ENOENT) qdp::warn("cannot read %s: %s", file.c_str(), std::strerror(errno));
        return false;
    }
    struct stat st {};
    if (::fstat(::fileno(f.get()), &st) == 0 && S_ISDIR(st.st_mode)) {
        qdp::warn("%s is a directory, not a UCI file", file.c_str());
        return false;
    }
    qdp::LineReader reader(f.get());
    std::string_view line;
    bool in_section = false;
    while (reader.next(line)) {
        Words words = split_words(line);
        const std::string *w = words.w;
        if (words.count == 0) continue;
        if (w[0] == "config") {
            // A named section is found by its name, an unnamed one by its type.
            in_section = (w[2].empty() ? w[1] : w[2]) == section;
        } else if (in_section && w[0] == "option" && words.count == 3 && w[1] == option) {
            value = w[2];
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" QDQ_API int getUciOptionValue(const char *package, const char *section,
                                         const char *option, char *value) {
    if (value != nullptr) value[0] = '\0';
    if (package == nullptr || section == nullptr || option == nullptr || value == nullptr)
        return -1;
    // The package names a file under /etc/config and nothing else.
    if (package[0] == '\0' || std::strchr(package, '/') != nullptr ||
        std::strstr(package, "..") != nullptr) {
        qdp::warn("getUciOptionValue: bad package name");
        return -1;
    }
    return qdp::guard("getUciOptionValue", -1, [&] {
        // On this gateway "/etc/config/system" is a directory (it holds
        // quickconf.conf); such a package keeps its UCI options in a file of
        // its own name inside it: "/etc/config/system/system".
        std::string file = qdq::path(std::string("/etc/config/") + package);
        struct stat st {};
        if (::stat(file.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) file += std::string("/") + package;
        std::string found;
        if (!find_option(file, section, option, found)) return -1;
        qdp::copy_text(value, QDP_CFGVALUE_SIZE, found);
        return 0;
    });
}
