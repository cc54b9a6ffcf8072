// The frame reader, HgTcpRcv, over a socket pair: the input is the byte
// stream a peer sends before closing its side; frames are read until the
// reader reports a closed or unusable connection.
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "common/json.h"
#include "common/socket.h"
#include "platintf/hgprocessplatintf.h"
#include "support/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) qdq_fuzz::fail("socketpair");
    qdq::Fd reader(sv[0]), writer(sv[1]);
    int room = 1 << 20;
    setsockopt(writer.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    size_t sent = 0;
    while (sent < size) {
        ssize_t n = send(writer.get(), data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n <= 0) break;  // what did not fit is a truncated stream
        sent += static_cast<size_t>(n);
    }
    shutdown(writer.get(), SHUT_WR);

    size_t consumed = 0;
    for (int frames = 0; frames < 64; ++frames) {
        char *raw = nullptr;
        const int got = HgTcpRcv(reader.get(), &raw);
        qdq::CText payload(raw);
        if (got <= 0) break;
        if (got > 102400 || !payload || payload.get()[got] != '\0')
            qdq_fuzz::fail("frame accepted beyond its limit or unterminated");
        // The payload is exactly the bytes after its header.
        consumed += 4;
        if (consumed + static_cast<size_t>(got) > sent ||
            std::memcmp(payload.get(), data + consumed, static_cast<size_t>(got)) != 0)
            qdq_fuzz::fail("payload differs from the bytes sent");
        consumed += static_cast<size_t>(got);
    }
    return 0;
}
