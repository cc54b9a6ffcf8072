// The quick-install path: one datagram of at most 512 bytes as the port
// receives it, decoded, answered by the host callback (which fills the whole
// 512-byte reply buffer when it can) and sent back Base64-encoded over a
// datagram socket pair.
#include <sys/socket.h>

#include <cstring>
#include <string>

#include "common/json.h"
#include "common/socket.h"
#include "localsvc/quickinstall.h"
#include "support/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    const std::string datagram = qdq_fuzz::text(data, size < 512 ? size : 512);
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv) != 0) qdq_fuzz::fail("socketpair");
    qdq::Fd service(sv[0]), client(sv[1]);
    qdq::answer_quick_request(datagram.c_str(), service.get(), nullptr, 0);

    // The callback echoes the request; the reply is its first 511 bytes.
    qdq::CText request(base64_decode(datagram.c_str()));
    std::string expected = request ? std::string(request.get()).substr(0, 511) : "";
    std::string got(2048, '\0');
    ssize_t n = recv(client.get(), &got[0], got.size(), MSG_DONTWAIT);
    if (expected.empty()) {
        if (n >= 0) qdq_fuzz::fail("an answer where none is due");
        return 0;
    }
    if (n <= 0) qdq_fuzz::fail("no answer to a decodable request");
    got.resize(static_cast<size_t>(n));
    qdq::CText back(base64_decode(got.c_str()));
    if (!back || expected != back.get()) qdq_fuzz::fail("answer is not the callback's reply");
    return 0;
}
