// The app store client's internal helpers: bounded request text, guarded
// copies out of replies, reply parsing and the one send path.
#pragma once

#include <cstddef>

#include "common/json.h"
#include "qdquick/qdquick.h"

namespace qdq::appstore {

// The callers' buffers: requests 1024 bytes, replies 2048.
inline constexpr std::size_t kRequestSize = 1024;
inline constexpr std::size_t kReplySize = 2048;
// "expire_in" arrives as text; anything longer than this is not a count.
inline constexpr std::size_t kExpireTextSize = 32;

// Appends formatted text to a caller's NUL-terminated buffer without ever
// writing past it. Once an append does not fit, every later one is refused
// and discard() puts the buffer back as it was found.
class RequestText {
public:
    RequestText(char *out, std::size_t cap);
    bool add(const char *fmt, ...) QDQ_PRINTF(2, 3);
    bool ok() const { return ok_; }
    void discard();

private:
    char *out_;
    std::size_t cap_;
    std::size_t start_;
    std::size_t len_;
    bool ok_;
};

// True when text holds no CR or LF: values taken from records or replies
// go into header lines, where a line break would forge further headers.
bool single_line(const char *text);

// Copies a string item's text into dst[cap], cut to cap - 1 characters. An
// item without text (a number, say) leaves dst empty and is logged the way
// the guarded string copy logs a null source.
void copy_item_text(const cJSON *item, char *dst, std::size_t cap);

// The JSON object of an HTTP reply, which starts at its first '{' (status
// line and headers are skipped, the status is not looked at). Logs and
// returns null for a null reply, no object or a parse error.
JsonPtr parse_reply_json(const char *reply);

// The server of the token and store-address exchanges: the cube record's
// MgtURL, or the default cube host when it is empty.
void store_server(char *out, std::size_t cap);

// Sends request to server:port through the host's sender. Returns true when
// a non-empty answer (NUL-terminated within reply[kReplySize]) came back.
bool send_request(const char *request, const char *server, char *reply);

}  // namespace qdq::appstore
