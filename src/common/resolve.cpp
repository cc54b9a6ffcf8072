#include "common/resolve.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "common/log.h"

namespace {

// Frees a getaddrinfo answer on every path.
struct AddrInfoList {
    struct addrinfo *head = nullptr;
    ~AddrInfoList() {
        if (head != nullptr) freeaddrinfo(head);
    }
};

// The address of `entry` as text, or false when `entry` is not of `family`
// (reading an IPv4 entry as IPv6 would run past its sockaddr).
bool entry_text(const struct addrinfo *entry, int family, char *text, socklen_t size) {
    if (entry->ai_addr == nullptr || entry->ai_family != family) return false;
    const void *addr = nullptr;
    if (family == AF_INET)
        addr = &reinterpret_cast<const struct sockaddr_in *>(entry->ai_addr)->sin_addr;
    else
        addr = &reinterpret_cast<const struct sockaddr_in6 *>(entry->ai_addr)->sin6_addr;
    return inet_ntop(family, addr, text, size) != nullptr;
}

}  // namespace

int AppGetIPFromDNS(char *address) {
    if (address == nullptr) return -1;
    if (inet_addr(address) != INADDR_NONE) {
        QDQ_LOG("serveraddress is ip\n");
        return 0;
    }
    QDQ_LOG("serveraddress is not ip ,is dns!\n");
    // IPv4 only, as the push and heartbeat paths that call this expect.
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    AddrInfoList answer;
    if (getaddrinfo(address, nullptr, &hints, &answer.head) != 0 || answer.head == nullptr) {
        QDQ_LOG(" gethostbyname error for host:%s\n", address);
        return -1;
    }
    const struct addrinfo *first = answer.head;
    QDQ_LOG("hostname:%s\n", first->ai_canonname != nullptr ? first->ai_canonname : address);
    if (first->ai_family != AF_INET && first->ai_family != AF_INET6) {
        QDQ_LOG("unknown address type\n");
        return -1;
    }
    char text[INET6_ADDRSTRLEN];
    if (entry_text(first, first->ai_family, text, sizeof text))
        std::snprintf(address, qdq::kAddrTextSize, "%s", text);
    QDQ_LOG("ipordns:%s\n", address);
    return 0;
}

namespace qdq {

int fill_address_list(const struct addrinfo *answers, char (*list)[kAddrTextSize], int iptype, int capacity) {
    int family = iptype == AF_INET ? AF_INET : AF_INET6;
    int count = 0;
    for (const struct addrinfo *p = answers; p != nullptr && count < capacity; p = p->ai_next) {
        if (!entry_text(p, family, list[count], kAddrTextSize)) continue;
        QDQ_LOG("%s", list[count]);
        // IPv4 loopback answers are useless to reach a platform; the next
        // entry overwrites the slot. (IPv6 loopback is kept, as it always was.)
        if (std::strcmp(list[count], "127.0.0.1") != 0) ++count;
    }
    return count;
}

}  // namespace qdq

int AppGetIPListFromDNS(const char *server, char (*list)[qdq::kAddrTextSize], int iptype, int capacity) {
    QDQ_LOG("AppGetIPListFromDNS start,server  %s\tiptype:%d", server != nullptr ? server : "", iptype);
    if (server == nullptr || list == nullptr || capacity <= 0) return 0;

    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = iptype == AF_INET ? AF_INET : (iptype == AF_INET6 ? AF_INET6 : AF_UNSPEC);
    hints.ai_socktype = SOCK_STREAM;

    if (isValidIpAddress(iptype, server)) {
        std::snprintf(list[0], qdq::kAddrTextSize, "%s", server);
        QDQ_LOG("serveraddress is ip");
        return 1;
    }
    QDQ_LOG("resolve server");
    AddrInfoList answer;
    int rc = getaddrinfo(server, nullptr, &hints, &answer.head);
    QDQ_LOG("getaddrinfo return %d", rc);
    if (rc != 0) {
        QDQ_LOG("invalid dns or ip");
        return 0;
    }
    return qdq::fill_address_list(answer.head, list, iptype, capacity);
}
