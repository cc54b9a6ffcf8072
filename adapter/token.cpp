// PlatGetStoredToken: the app store access token kept by the gateway, the
// first line of its token file.
#include <cerrno>
#include <cstring>
#include <string_view>

#include "adapter_io.h"
#include "common/paths.h"
#include "qdquick/qdplatform.h"

extern "C" QDQ_API int PlatGetStoredToken(char *out) {
    if (out == nullptr) return -1;
    out[0] = '\0';
    return qdp::guard("PlatGetStoredToken", -1, [&] {
        const std::string file = qdq::path("/qdconf/app_store_token");
        qdp::File f = qdp::open_read(file);
        if (!f) {
            if (errno != ENOENT) qdp::warn("cannot read %s: %s", file.c_str(), std::strerror(errno));
            return 0;  // no token yet
        }
        qdp::LineReader reader(f.get());
        std::string_view line;
        if (reader.next(line)) qdp::copy_text(out, QDP_TOKEN_SIZE, line);
        return 0;
    });
}
