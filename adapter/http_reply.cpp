#include "http_reply.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace qdp {

namespace {

// Bounds on what a reply may make us hold, whatever it claims.
constexpr std::size_t kHeadMax = 16384;
constexpr std::size_t kLineMax = 1024;

std::string trim(const std::string &s) {
    std::size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

// Position just past the blank line that ends the header block, or npos.
// Lines may end in CR LF or a bare LF.
std::size_t head_end(const std::string &head) {
    std::size_t line_start = 0;
    for (std::size_t i = 0; i < head.size(); ++i) {
        if (head[i] != '\n') continue;
        std::size_t len = i - line_start;
        if (line_start > 0 && (len == 0 || (len == 1 && head[line_start] == '\r'))) return i + 1;
        line_start = i + 1;
    }
    return std::string::npos;
}

bool parse_decimal(const std::string &text, unsigned long long &out) {
    if (text.empty() || text.size() > 18) return false;
    for (char c : text)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    out = std::strtoull(text.c_str(), nullptr, 10);
    return true;
}

}  // namespace

HttpReply::State HttpReply::fail(const char *why) {
    error_ = why;
    return State::bad;
}

void HttpReply::keep(const char *data, std::size_t n) {
    std::size_t room = limit_ - text_.size();
    if (n > room) {
        n = room;
        truncated_ = true;
    }
    text_.append(data, n);
}

HttpReply::State HttpReply::feed(const char *data, std::size_t n) {
    while (phase_ == Phase::head) {
        if (n == 0) return State::more;
        // take_head() fails once the block passes kHeadMax, so room stays > 0.
        std::size_t take = std::min(n, kHeadMax + 1 - head_.size());
        head_.append(data, take);
        data += take;
        n -= take;
        State s = take_head();
        if (s == State::bad) return s;
        if (phase_ != Phase::head) {
            // The bytes after the header block belong to the body.
            std::string rest;
            rest.swap(head_);
            State b = body(rest.data(), rest.size());
            if (b != State::more) return b;
        }
    }
    return body(data, n);
}

HttpReply::State HttpReply::take_head() {
    for (;;) {
        std::size_t end = head_end(head_);
        if (end == std::string::npos) {
            if (head_.size() > kHeadMax) return fail("header block too long");
            return State::more;
        }
        if (!parse_head(end)) return State::bad;
        if (phase_ != Phase::head) return State::more;
        // An interim 1xx reply: the real one follows.
    }
}

bool HttpReply::parse_head(std::size_t end) {
    std::string block = head_.substr(0, end);
    head_.erase(0, end);
    if (block.compare(0, 5, "HTTP/") != 0) {
        fail("not an HTTP reply");
        return false;
    }
    std::size_t sp = block.find(' ');
    int status = sp == std::string::npos ? 0 : std::atoi(block.c_str() + sp + 1);
    if (status < 100 || status > 999) {
        fail("bad status line");
        return false;
    }
    if (status < 200) return true;  // interim: stays in Phase::head
    keep(block.data(), block.size());

    bool chunked = false, have_length = false;
    unsigned long long length = 0;
    std::size_t pos = block.find('\n') + 1;
    while (pos < block.size()) {
        std::size_t nl = block.find('\n', pos);
        std::string line = block.substr(pos, nl - pos);
        pos = nl + 1;
        std::size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = trim(line.substr(0, colon)), value = trim(line.substr(colon + 1));
        if (strcasecmp(name.c_str(), "Transfer-Encoding") == 0) {
            chunked = strcasestr(value.c_str(), "chunked") != nullptr;
        } else if (strcasecmp(name.c_str(), "Content-Length") == 0) {
            unsigned long long n = 0;
            if (!parse_decimal(value, n) || (have_length && n != length)) {
                fail("bad Content-Length");
                return false;
            }
            have_length = true;
            length = n;
        }
    }
    if (status == 204 || status == 304) {
        phase_ = Phase::done;
    } else if (chunked) {
        phase_ = Phase::chunk_size;
    } else if (have_length) {
        left_ = length;
        phase_ = length == 0 ? Phase::done : Phase::length;
    } else {
        phase_ = Phase::close;
    }
    return true;
}

HttpReply::State HttpReply::body(const char *data, std::size_t n) {
    std::size_t i = 0;
    while (i < n && phase_ != Phase::done && !truncated_) {
        switch (phase_) {
        case Phase::length:
        case Phase::chunk_data: {
            std::size_t take = n - i < left_ ? n - i : static_cast<std::size_t>(left_);
            keep(data + i, take);
            i += take;
            left_ -= take;
            if (left_ == 0) phase_ = phase_ == Phase::length ? Phase::done : Phase::chunk_end;
            break;
        }
        case Phase::close:
            keep(data + i, n - i);
            i = n;
            break;
        default: {
            State s = chunk_line(data[i++]);
            if (s == State::bad) return s;
        }
        }
    }
    return phase_ == Phase::done || truncated_ ? State::done : State::more;
}

// One byte of a chunk-size line, the line end after a chunk or a trailer line.
HttpReply::State HttpReply::chunk_line(char c) {
    if (c != '\n') {
        if (line_.size() >= kLineMax) return fail("chunk framing line too long");
        line_ += c;
        return State::more;
    }
    std::string line = trim(line_);
    line_.clear();
    switch (phase_) {
    case Phase::chunk_size: {
        std::string digits = line.substr(0, line.find(';'));
        digits = trim(digits);
        if (digits.empty() || digits.size() > 15 ||
            digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            return fail("bad chunk size");
        left_ = std::strtoull(digits.c_str(), nullptr, 16);
        phase_ = left_ == 0 ? Phase::trailer : Phase::chunk_data;
        return State::more;
    }
    case Phase::chunk_end:
        if (!line.empty()) return fail("chunk not followed by a line end");
        phase_ = Phase::chunk_size;
        return State::more;
    default:  // trailer lines, up to an empty one
        if (line.empty()) phase_ = Phase::done;
        return State::more;
    }
}

HttpReply::State HttpReply::finish() {
    if (phase_ == Phase::done || phase_ == Phase::close || truncated_) {
        phase_ = Phase::done;
        return State::done;
    }
    return fail(phase_ == Phase::head ? "connection closed before the reply" : "connection closed inside the reply body");
}

}  // namespace qdp
