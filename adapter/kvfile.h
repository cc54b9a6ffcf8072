// key=value files: one "key=value" per line, the key up to the first '='.
// Lines that hold no '=' are kept as they stand when the file is rewritten.
#pragma once

#include <string>
#include <string_view>

namespace qdp {

enum class KvResult { found, missing, error };

// Looks key up in file (a path with the root already applied). `missing`
// covers an absent file too; `error` is any other read failure, reported on
// stderr. value is cleared unless the key is found.
KvResult kv_get(const std::string &file, std::string_view key, std::string &value);

// Replaces the first line of key (dropping later duplicates) or appends one.
// Writes a temporary file beside it and renames it over, so readers see the
// old file or the new one, never a part. The parent directory must exist.
// Returns false on failure, reported on stderr.
bool kv_set(const std::string &file, std::string_view key, std::string_view value);

}  // namespace qdp
