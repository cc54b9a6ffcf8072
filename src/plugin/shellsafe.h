// The plugin manager builds shell commands from plugin names, versions, URLs
// and descriptor values that come from a platform or a package. These checks
// and the quoting below are the only way such text enters a command.
#pragma once

#include <string>

namespace qdq::plugin {

// A plain word: letters, digits and "._-+:@,=%" (and '/' when allow_slash),
// not empty, not starting with '-', never holding "..". Names, versions,
// entry files and local package paths must be plain.
bool is_plain(const char *text, bool allow_slash);

// A URL that can be single-quoted safely: printable, no blanks, no quotes,
// backquote, '$', '\\', ';', '|', '<', '>', no "..", not starting with '-'.
// '&', '?' and '=' stay allowed: query strings must still download.
bool is_safe_url(const char *text);

// `text` as one single-quoted shell word. Throws std::invalid_argument when it
// holds a single quote or a control character (it could not stay one word).
std::string sq(const std::string &text);

// Runs `command` through /bin/sh and returns its status the way system()
// reports it (exit code << 8, 0 = success), or -1 when no status came back.
int run_shell(const std::string &command);

}  // namespace qdq::plugin
