#include "platintf/plat_values.h"

#include <arpa/inet.h>

#include <cmath>
#include <cstring>
#include <string>

namespace qdq {

namespace {

bool is_alnum(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

bool ipv6_literal(const std::string &text) {
    in6_addr addr;
    return inet_pton(AF_INET6, text.c_str(), &addr) == 1;
}

}  // namespace

bool acceptable_host(const char *text, std::size_t cap) {
    if (text == nullptr) return false;
    const std::size_t len = strnlen(text, cap);
    if (len == 0 || len >= cap) return false;
    const std::string host(text, len);
    if (host.front() == '[')
        return host.size() > 2 && host.back() == ']' && ipv6_literal(host.substr(1, host.size() - 2));
    if (host.find(':') != std::string::npos) return ipv6_literal(host);
    if (!is_alnum(host.front())) return false;
    for (char c : host)
        if (!is_alnum(c) && c != '.' && c != '-' && c != '_') return false;
    return true;
}

bool acceptable_port_text(const char *text, unsigned &port) {
    if (text == nullptr) return false;
    const std::size_t len = strnlen(text, 6);
    if (len == 0 || len > 5) return false;
    unsigned value = 0;
    for (std::size_t i = 0; i < len; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + static_cast<unsigned>(text[i] - '0');
    }
    if (value < 1 || value > 65535) return false;
    port = value;
    return true;
}

bool acceptable_port(const cJSON *item, unsigned &port) {
    if (cJSON_IsString(item)) return acceptable_port_text(item->valuestring, port);
    if (!cJSON_IsNumber(item)) return false;
    const double value = item->valuedouble;
    if (!(value >= 1 && value <= 65535) || std::floor(value) != value) return false;
    port = static_cast<unsigned>(value);
    return true;
}

unsigned default_interval(const platinfo *rec) { return rec == &pluginplatinfo ? 20 : 60; }

}  // namespace qdq
