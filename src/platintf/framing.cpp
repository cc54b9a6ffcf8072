// Length-framed TCP messages: a 4-byte big-endian payload length, then the
// JSON text without its NUL.
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "common/clock.h"
#include "common/socket.h"
#include "common/log.h"
#include "platintf/hgprocessplatintf.h"

namespace {

constexpr int kMaxInbound = 102400;

// The MAC field is host-filled; never read past it.
constexpr int kMacWidth = static_cast<int>(sizeof deviceinfo.mac);

void put_frame(const char *msg, size_t len, unsigned char *out) {
    auto n = static_cast<uint32_t>(len);
    out[0] = static_cast<unsigned char>(n >> 24);
    out[1] = static_cast<unsigned char>(n >> 16);
    out[2] = static_cast<unsigned char>(n >> 8);
    out[3] = static_cast<unsigned char>(n);
    std::memcpy(out + 4, msg, len);
}

ssize_t recv_once(int sock, void *buf, size_t len) {
    ssize_t r;
    do {
        r = recv(sock, buf, len, 0);
    } while (r < 0 && errno == EINTR);
    return r;
}

}  // namespace

int HgProcessSendTcpMsg(const char *msg, unsigned char *out) {
    if (msg == nullptr || out == nullptr) return -1;
    size_t len = std::strlen(msg);
    if (len > static_cast<size_t>(INT_MAX) - 4) return -1;
    put_frame(msg, len, out);
    int total = static_cast<int>(len) + 4;
    QDQ_LOG("###HgProcessSendTcpMsg()%d %d \n%s\n", static_cast<int>(len), total, msg);
    return total;
}

int HgTcpSend(int sock, const char *msg) {
    if (msg == nullptr) return -1;
    size_t len = std::strlen(msg);
    if (len > static_cast<size_t>(INT_MAX) - 5) return -1;
    QDQ_LOG("HgTcpSend start, sendbuflen:%d,mac=%.*s", static_cast<int>(len), kMacWidth,
            deviceinfo.mac);
    std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[len + 5]());
    if (!buf) return -1;
    put_frame(msg, len, buf.get());

    struct timeval tv = qdq::timeval_for(5);
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    ssize_t ret;
    do {
        // MSG_NOSIGNAL: a peer that has gone must fail the send, not raise
        // SIGPIPE in the host's daemon.
        ret = send(sock, buf.get(), len + 4, MSG_NOSIGNAL);
    } while (ret < 0 && errno == EINTR);
    if (ret < 0)
        QDQ_LOG("send is return -1 , errno=%s", std::strerror(errno));
    else
        QDQ_LOG("mac:%.*s,send success , ret:%d", kMacWidth, deviceinfo.mac, static_cast<int>(ret));
    return static_cast<int>(ret);
}

int HgTcpRcv(int sock, char **out) {
    if (out == nullptr) return 0;
    QDQ_LOG("HgRcvTcp start");
    // One read for the header: a header split across segments is used with
    // the bytes that came, the rest counted as 0.
    unsigned char head[4] = {0, 0, 0, 0};
    ssize_t got = recv_once(sock, head, sizeof head);
    QDQ_LOG("recv length1:%d", static_cast<int>(got));
    if (got < 1) return 0;

    uint32_t raw = (uint32_t{head[0]} << 24) | (uint32_t{head[1]} << 16) |
                   (uint32_t{head[2]} << 8) | uint32_t{head[3]};
    auto msglen = static_cast<int32_t>(raw);
    QDQ_LOG("msg length:%d", msglen);
    // A negative length (top bit set) would size the buffer wrongly; it is
    // refused like an over-long one.
    if (msglen > kMaxInbound || msglen < 0) {
        QDQ_LOG("msg length > 100K,ignore this message!");
        return 0;
    }
    auto *buf = static_cast<char *>(std::calloc(static_cast<size_t>(msglen) + 1, 1));
    if (buf == nullptr) {
        QDQ_LOG("failed to malloc buffer to recv data!");
        return 0;
    }
    *out = buf;

    // An empty payload reads as 0 bytes. recv of 0 bytes answers 0 at once
    // on TCP but may block on other stream sockets, so it is not called.
    ssize_t total = msglen == 0 ? 0 : recv_once(sock, buf, static_cast<size_t>(msglen));
    QDQ_LOG("recv length2:%d", static_cast<int>(total));
    if (total < 1) return -1;
    if (total < msglen) {
        QDQ_LOG("recv length is not equal msglen");
        while (total < msglen) {
            ssize_t r = recv_once(sock, buf + total, static_cast<size_t>(msglen - total));
            QDQ_LOG("try again,recv length is %d.", static_cast<int>(r));
            if (r < 1) {
                QDQ_LOG("can't recv enough msglen");
                return -1;
            }
            total += r;
        }
    }
    QDQ_LOG("######receive msg length:%d ;tcp data:\n%s", static_cast<int>(total), buf);
    return static_cast<int>(total);
}

bool WaitPlatformReply(int fd, unsigned timeout) {
    int ready = qdq::wait_readable(fd, timeout);
    if (ready < 0) {
        QDQ_LOG("error in select, errno=%s\n", std::strerror(errno));
        return false;
    }
    if (ready == 0) {
        QDQ_LOG("timeout in select, errno=%s\n", std::strerror(errno));
        return false;
    }
    return true;
}
