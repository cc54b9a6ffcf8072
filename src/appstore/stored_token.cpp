// getStoredToken: the access token file written by the gateway's other
// programs. The file is opened directly rather than printed by a shell
// "cat": same lines, no shell and no child process.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "common/abi_guard.h"
#include "common/log.h"
#include "common/paths.h"
#include "qdquick/qdquick.h"

namespace {

struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};

// Lines are read in pieces of at most this many characters.
constexpr int kLinePiece = 199;

}  // namespace

extern "C" QDQ_API int getStoredToken(char *out) {
    if (out == nullptr) return 0;
    return qdq::guard_entry("getStoredToken", 0, [&] {
        const std::string file = qdq::path("/qdconf/app_store_token");
        // "e": a command forked meanwhile must not inherit the descriptor.
        std::unique_ptr<std::FILE, FileCloser> f(std::fopen(file.c_str(), "re"));
        if (!f) {
            // A missing file reads as no lines, as "cat" printed nothing.
            if (errno != ENOENT) QDQ_LOG("Fail to open %s\n", file.c_str());
            return 0;
        }
        char buf[kLinePiece + 1];
        while (std::fgets(buf, sizeof buf, f.get()) != nullptr) {
            QDQ_LOG("buf:%s\n", buf);
            // Up to the line feed; a piece that begins with one leaves out
            // unchanged. The last line read wins.
            std::size_t len = std::strcspn(buf, "\n");
            if (len > 0) {
                std::memcpy(out, buf, len);  // len < 200 <= the 1024 bytes of out
                out[len] = '\0';
            }
            QDQ_LOG("token:%s\n", out);
        }
        return 0;
    });
}
