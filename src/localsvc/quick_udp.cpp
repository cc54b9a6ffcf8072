// Quick-install service: Base64 request datagrams on UDP 7998, answered by
// the host's quick-install callback with a Base64 reply datagram.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "common/clock.h"
#include "common/host.h"
#include "common/json.h"
#include "common/log.h"
#include "common/paths.h"
#include "common/socket.h"
#include "common/cancel.h"
#include "common/host.h"
#include "localsvc/quickinstall.h"

namespace {

// Request and reply limit, in bytes (the reply text at most one less).
constexpr std::size_t kQuickMax = 512;

// "/var/quick_7998_ready" tells other programs that the port listens.
// Created directly rather than with "touch" through a shell.
void mark_ready() {
    std::string marker;
    try {
        marker = qdq::path("/var/quick_7998_ready");
    } catch (const std::exception &) {
        return;
    }
    int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    futimens(fd, nullptr);  // like touch: an existing marker gets a new time
    close(fd);
}

void serve_one(int sock) {
    int ready;
    {
        qdq::CancelWindow window;
        ready = qdq::wait_readable(sock, -1);
    }
    if (ready < 0) {
        QDQ_LOG("error in select\n");
        // The socket stays; a pause keeps a persisting error from spinning.
        qdq::CancelWindow window;
        qdq::sleep_for(1);
        return;
    }
    if (ready == 0) {
        QDQ_LOG("FD_ISSET return 0\n");
        return;
    }
    // One byte more than a request, so that a full-size one is a text.
    char buf[kQuickMax + 1];
    std::memset(buf, 0, sizeof buf);
    sockaddr_storage from{};
    socklen_t fromlen = sizeof from;
    ssize_t n = recvfrom(sock, buf, kQuickMax, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from),
                         &fromlen);
    if (n < 0) {
        QDQ_LOG("recvfrom Error!\n");
        return;
    }
    qdq::answer_quick_request(buf, sock, reinterpret_cast<const sockaddr *>(&from), fromlen);
}

}  // namespace

void qdq::answer_quick_request(const char *datagram, int sock, const sockaddr *to, socklen_t tolen) {
    char reply[kQuickMax];
    std::memset(reply, 0, sizeof reply);
    QDQ_LOG("RECV: %s\n", datagram);
    char *request = base64_decode(datagram);
    QDQ_LOG("revbuf after decode: %s\n", request != nullptr ? request : "");
    if (request == nullptr) {
        QDQ_LOG("recv is null or decode error!\n");
        return;
    }
    // Without a host callback there is no reply to give.
    if (quickevcb.quickinstall != nullptr) quickevcb.quickinstall(reply, request);
    reply[kQuickMax - 1] = '\0';  // the callback's text is cut to 511 characters
    QuickSend(request, reply, to, sock, tolen);
}

int StartProcessPrivateUdpRequest(void) {
    // Cancellable only inside its wait: callback slot 3 runs on this thread
    // and may take the host's locks.
    qdq::NoCancel no_cancel;
    // Fixed texts: port 9998 (not 7998) is the rule this service has always
    // opened, and other programs rely on it.
    // With a LAN interface set, the rule takes it like the other ports'.
    if (gQuickLanInterface[0] != '\0') {
        qdq::open_firewall_port("udp", 9998);
    } else {
        safeSystem("iptables -D INPUT -p udp --dport 9998 -j ACCEPT");
        safeSystem("iptables -I INPUT 1 -p udp --dport 9998 -j ACCEPT");
    }

    // No SO_REUSEADDR: a second instance must fail to bind. Close-on-exec
    // keeps the port out of the commands the host runs.
    qdq::Fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.valid()) {
        QDQ_LOG("create socket\n");
        return -1;
    }
    sockaddr_in addr;
    qdq::ipv4_address(nullptr, qdq::kQuickPort, addr);
    if (bind(sock.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        QDQ_LOG("bind failed\n");
        return -1;
    }
    mark_ready();
    for (;;) serve_one(sock.get());
}

int QuickSend(char *request, const char *reply, const struct sockaddr *to, int sock, socklen_t tolen) {
    if (request == nullptr) {
        QDQ_LOG("%s,%d,revbuf is null\n", "QuickSend", __LINE__);
        return -1;
    }
    std::free(request);
    if (reply == nullptr || reply[0] == '\0') {
        QDQ_LOG("%s,%d,send buf is NULL, continue\n", "QuickSend", __LINE__);
        return -1;
    }
    QDQ_LOG("before encode: %s\n", reply);
    qdq::CText encoded(base64_encode(reply));
    if (!encoded) {
        QDQ_LOG("after encode, send buf is NULL, continue\n");
        return -1;
    }
    if (sendto(sock, encoded.get(), std::strlen(encoded.get()), 0, to, tolen) == -1)
        QDQ_LOG("sendto is return -1 , errno=%s\n", std::strerror(errno));
    QDQ_LOG("SEND: %s\n", encoded.get());
    return 0;
}
