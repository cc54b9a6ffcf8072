#include "plugin/package_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "plugin/shellsafe.h"

namespace qdq::plugin {

namespace {

constexpr std::size_t kBlock = 512;
constexpr std::uint64_t kMaxLongName = 4096;  // a GNU long-name entry
constexpr std::uint64_t kMaxPax = 65536;      // a pax extended header

// A numeric header field: octal digits between blanks and NULs. The base-256
// form exists only for sizes no package may have.
bool octal(const unsigned char *field, std::size_t n, std::uint64_t &out) {
    if ((field[0] & 0x80) != 0) return false;
    std::size_t i = 0;
    while (i < n && field[i] == ' ') ++i;
    std::uint64_t v = 0;
    for (; i < n && field[i] >= '0' && field[i] <= '7'; ++i) {
        if ((v >> 60) != 0) return false;
        v = v * 8 + static_cast<std::uint64_t>(field[i] - '0');
    }
    for (; i < n; ++i)
        if (field[i] != ' ' && field[i] != '\0') return false;
    out = v;
    return true;
}

// tar accepts the sum of the header's bytes taken unsigned or signed, with
// the checksum field counted as blanks.
bool checksum_ok(const unsigned char *h) {
    std::uint64_t want = 0;
    if (!octal(h + 148, 8, want)) return false;
    long long usum = 0, ssum = 0;
    for (std::size_t i = 0; i < kBlock; ++i) {
        unsigned char c = (i >= 148 && i < 156) ? ' ' : h[i];
        usum += c;
        ssum += static_cast<signed char>(c);
    }
    return want == static_cast<std::uint64_t>(usum) || static_cast<long long>(want) == ssum;
}

std::string field_text(const unsigned char *field, std::size_t n) {
    const void *nul = std::memchr(field, '\0', n);
    return std::string(reinterpret_cast<const char *>(field),
                       nul != nullptr ? static_cast<const unsigned char *>(nul) - field : n);
}

// The name as tar composes it: a POSIX header may split it into a prefix.
std::string header_name(const unsigned char *h) {
    std::string name = field_text(h, 100);
    if (std::memcmp(h + 257, "ustar\0", 6) == 0) {
        std::string prefix = field_text(h + 345, 155);
        if (!prefix.empty()) name = prefix + "/" + name;
    }
    return name;
}

// Relative, no ".." part, no control characters (they only serve to hide
// a name in a listing or a log).
const char *name_problem(const std::string &name) {
    if (name.empty()) return "an empty name";
    if (name[0] == '/') return "an absolute name";
    for (unsigned char c : name)
        if (c < ' ' || c == 0x7f) return "a control character in a name";
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        if (name.compare(start, end - start, "..") == 0) return "a name with \"..\"";
        start = end + 1;
    }
    return nullptr;
}

bool read_block(std::FILE *in, unsigned char *h) { return std::fread(h, 1, kBlock, in) == kBlock; }

// Reads the `size` bytes of an entry's data (and its padding) into `out`
// when given, else skips them.
bool read_data(std::FILE *in, std::uint64_t size, std::string *out) {
    unsigned char block[kBlock];
    for (std::uint64_t left = size; left > 0;) {
        if (!read_block(in, block)) return false;
        std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(left, kBlock));
        if (out != nullptr) out->append(reinterpret_cast<const char *>(block), take);
        left -= take;
    }
    return true;
}

// Pax records "<length> <key>=<value>\n": "path" and "size" change the next
// entry and must be honoured as tar does; sparse files are refused.
const char *apply_pax(const std::string &records, std::string &path, bool &have_path, std::uint64_t &size,
                      bool &have_size) {
    std::size_t at = 0;
    while (at < records.size()) {
        std::size_t blank = records.find(' ', at);
        if (blank == std::string::npos) return "a broken pax header";
        std::uint64_t len = 0;
        for (std::size_t i = at; i < blank; ++i) {
            if (records[i] < '0' || records[i] > '9' || len > kMaxPax) return "a broken pax header";
            len = len * 10 + static_cast<std::uint64_t>(records[i] - '0');
        }
        if (len <= blank - at + 1 || at + len > records.size() || records[at + len - 1] != '\n')
            return "a broken pax header";
        std::string record = records.substr(blank + 1, at + len - blank - 2);
        std::size_t eq = record.find('=');
        if (eq == std::string::npos) return "a broken pax header";
        std::string key = record.substr(0, eq), value = record.substr(eq + 1);
        if (key == "path") {
            if (have_path) return "two names for one entry";
            path = value;
            have_path = true;
        } else if (key == "size") {
            if (value.empty()) return "a broken pax size";
            std::uint64_t v = 0;
            for (char c : value) {
                if (c < '0' || c > '9' || (v >> 58) != 0) return "a broken pax size";
                v = v * 10 + static_cast<std::uint64_t>(c - '0');
            }
            size = v;
            have_size = true;
        } else if (key.compare(0, 10, "GNU.sparse") == 0) {
            return "a sparse file";
        }
        at += len;
    }
    return nullptr;
}

const char *type_problem(unsigned char type) {
    switch (type) {
        case '1': return "a hard link";
        case '2': return "a symbolic link";
        case '3': return "a character device";
        case '4': return "a block device";
        case '6': return "a FIFO";
        case 'g': return "a global pax header";
        case 'K': return "a long link name";
        default: return "an entry of unknown type";
    }
}

}  // namespace

PackageLimits package_limits(long long plugin_size) {
    PackageLimits limits{kMaxEntries, kMaxUnpacked};
    if (plugin_size > 0) {
        std::uint64_t by_size = static_cast<std::uint64_t>(plugin_size) * kUnpackFactor;
        limits.bytes = std::min(kMaxUnpacked, std::max(kMinUnpacked, by_size));
    }
    return limits;
}

std::string check_tar(std::FILE *in, const PackageLimits &limits) {
    unsigned char h[kBlock];
    std::string path;
    bool have_path = false, have_size = false;
    std::uint64_t pax_size = 0, entries = 0, bytes = 0;
    for (;;) {
        std::size_t got = std::fread(h, 1, kBlock, in);
        bool pending = have_path || have_size;
        // tar stops at the first zero block, or at the end of the data.
        if (got == 0 && !pending) return "";
        if (got != kBlock) return "a truncated archive";
        if (std::all_of(h, h + kBlock, [](unsigned char c) { return c == 0; }))
            return pending ? "an extended header without its entry" : "";
        if (!checksum_ok(h)) return "a damaged header";
        std::uint64_t size = 0;
        if (!octal(h + 124, 12, size)) return "a damaged size field";
        unsigned char type = h[156];
        if (type == 'L') {
            // tar implementations differ on which of two long names wins.
            if (have_path) return "two names for one entry";
            if (size > kMaxLongName) return "an over-long name";
            path.clear();
            if (!read_data(in, size, &path)) return "a truncated archive";
            path = path.substr(0, path.find('\0'));
            have_path = true;
            continue;
        }
        if (type == 'x') {
            if (size > kMaxPax) return "an over-long pax header";
            std::string records;
            if (!read_data(in, size, &records)) return "a truncated archive";
            if (const char *why = apply_pax(records, path, have_path, pax_size, have_size)) return why;
            continue;
        }
        bool regular = type == '0' || type == '\0' || type == '7';
        if (!regular && type != '5') return type_problem(type);
        std::string name = have_path ? path : header_name(h);
        if (have_size) size = pax_size;
        have_path = have_size = false;
        if (const char *why = name_problem(name)) return why;
        // A folder carries no data; tar implementations differ on skipping
        // any, so none is accepted.
        if ((type == '5' || name.back() == '/') && size != 0) return "a folder with data";
        if (++entries > limits.entries) return "more than " + std::to_string(limits.entries) + " entries";
        if (regular) {
            bytes += size;
            if (bytes > limits.bytes) return "more than " + std::to_string(limits.bytes) + " bytes unpacked";
            if (!read_data(in, size, nullptr)) return "a truncated archive";
        }
    }
}

std::string check_package(const std::string &file, bool gzipped, const PackageLimits &limits) {
    struct stat st;
    if (lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return "no package file";
    if (!gzipped) {
        std::FILE *in = std::fopen(file.c_str(), "rbe");
        if (in == nullptr) return "no package file";
        std::string why = check_tar(in, limits);
        std::fclose(in);
        return why;
    }
    // tar itself unpacks through gzip; reading the same stream here sees
    // exactly the entries tar will see. Closing early ends gzip on a broken
    // pipe.
    std::FILE *in = popen(("gzip -dc 2>/dev/null <" + sq(file)).c_str(), "re");
    if (in == nullptr) return "gzip cannot start";
    std::string why = check_tar(in, limits);
    pclose(in);
    return why;
}

}  // namespace qdq::plugin
