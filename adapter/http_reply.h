// Reassembles one HTTP/1.x reply from the bytes of a connection: the status
// line and headers as received, then the body decoded from its framing
// (Content-Length, chunked, or up to the end of the connection). At most
// `limit` bytes are kept; a longer reply is cut there and reported.
#pragma once

#include <cstddef>
#include <string>

namespace qdp {

class HttpReply {
public:
    enum class State { more, done, bad };

    explicit HttpReply(std::size_t limit) : limit_(limit) {}

    // Takes the next bytes. `done` once the reply is complete (or the kept
    // text is full), `bad` for a reply that breaks the framing (see error()).
    State feed(const char *data, std::size_t n);
    // The connection ended.
    State finish();

    const std::string &text() const { return text_; }
    bool truncated() const { return truncated_; }
    const std::string &error() const { return error_; }

private:
    enum class Phase { head, length, chunk_size, chunk_data, chunk_end, trailer, close, done };

    State take_head();
    bool parse_head(std::size_t end);
    State body(const char *data, std::size_t n);
    State chunk_line(char c);
    void keep(const char *data, std::size_t n);
    State fail(const char *why);

    std::size_t limit_;
    std::string text_;
    std::string head_;
    std::string line_;
    Phase phase_ = Phase::head;
    unsigned long long left_ = 0;
    bool truncated_ = false;
    std::string error_;
};

}  // namespace qdp
