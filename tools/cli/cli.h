// qdquick-cli: one command to a local request port of the gateway agent.
#pragma once

#include <stdexcept>
#include <string>

namespace cli {

// Exit status of the program (documented in --help).
enum Exit {
    kOk = 0,
    kUsage = 2,      // bad options or a request that is not JSON
    kTimeout = 3,    // no reply within --timeout
    kRefused = 4,    // connection refused / port unreachable
    kMalformed = 5,  // a reply (or status file) that cannot be read
    kNoReply = 6,    // the service closed the connection without a reply
    kError = 7,      // any other failure (network, missing status file)
    kNotRunning = 8, // status: the daemon is not running (stopped, failed, stale file)
};

struct Error : std::runtime_error {
    Error(Exit code_, const std::string &what) : std::runtime_error(what), code(code_) {}
    Exit code;
};

enum class Transport { Udp, Tcp, Quick };

struct Target {
    std::string host = "127.0.0.1";
    unsigned port = 0;  // 0 = the transport's default
    double timeout = 5.0;
};

// One request, one reply text (for Quick: still Base64). Throws Error.
std::string exchange_udp(const Target &t, const std::string &payload);
std::string exchange_tcp(const Target &t, const std::string &payload);

// `status`: reads the daemon's status file at `path`, checks that its pid
// lives, prints a summary (or the JSON, pretty or as read). Throws Error.
enum class StatusFormat { Text, Json, Raw };
int show_status(const std::string &path, StatusFormat format);

// Standard Base64 (RFC 4648, padded, no line breaks).
std::string base64_encode(const std::string &data);
// Throws Error(kMalformed) for text that is not Base64.
std::string base64_decode(const std::string &text);

}  // namespace cli
