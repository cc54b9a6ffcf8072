// The library's log files and helpers around AppMgrLogLine, the one log call.
#pragma once

#include "qdquick/qdquick.h"

namespace qdq {

// General log, trace log and push log (fixed paths; the root is applied by
// AppMgrLogLine itself).
inline constexpr const char *kLogMain = "/var/shrcadlog.txt";
inline constexpr const char *kLogTrace = "/var/shrcadlog-bak.txt";
inline constexpr const char *kLogPush = "/var/shrcadlog-dpi.txt";

// Longest message part of a line, in characters.
inline constexpr int kLogMessageMax = 9998;

}  // namespace qdq

// Logs to the general log.
#define QDQ_LOG(...) AppMgrLogLine(::qdq::kLogMain, __VA_ARGS__)
