// Bounded request text, guarded copies and reply parsing for the app store
// exchanges.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "appstore/appstore.h"
#include "common/log.h"

namespace qdq::appstore {

RequestText::RequestText(char *out, std::size_t cap)
    : out_(out), cap_(cap), start_(0), len_(0), ok_(out != nullptr && cap > 0) {
    if (!ok_) return;
    // The contract is a zeroed buffer to append to; one without a terminator
    // inside its size cannot be appended to safely.
    start_ = len_ = strnlen(out, cap);
    if (start_ == cap) ok_ = false;
}

bool RequestText::add(const char *fmt, ...) {
    if (!ok_) return false;
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(out_ + len_, cap_ - len_, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<std::size_t>(n) >= cap_ - len_) {
        ok_ = false;
        discard();
        return false;
    }
    len_ += static_cast<std::size_t>(n);
    return true;
}

void RequestText::discard() {
    if (out_ != nullptr && start_ < cap_) out_[start_] = '\0';
    len_ = start_;
}

bool single_line(const char *text) { return text != nullptr && std::strpbrk(text, "\r\n") == nullptr; }

void copy_item_text(const cJSON *item, char *dst, std::size_t cap) {
    if (dst == nullptr || cap == 0) return;
    const char *src = cJSON_IsString(item) ? item->valuestring : nullptr;
    if (src == nullptr) {
        dst[0] = '\0';
        QDQ_LOG("appStrcpyPtr() err!destStr or srcStr is NULL!\n");
        return;
    }
    std::size_t len = strnlen(src, cap - 1);
    std::memcpy(dst, src, len);
    dst[len] = '\0';
}

JsonPtr parse_reply_json(const char *reply) {
    if (reply == nullptr) {
        QDQ_LOG("recvbuf is NULL!\n");
        return nullptr;
    }
    const char *json = std::strchr(reply, '{');
    if (json == nullptr) {
        QDQ_LOG("no json msg!");
        return nullptr;
    }
    QDQ_LOG("json msg:\n%s", json);
    const char *end = nullptr;
    JsonPtr obj(cJSON_ParseWithOpts(json, &end, 0));
    if (!obj) QDQ_LOG("parse error, Error before: [%s]\n", end != nullptr ? end : "");
    return obj;
}

}  // namespace qdq::appstore
