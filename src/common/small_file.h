// Reads files that come from packages or other untrusted places.
#pragma once

#include <cstddef>
#include <string>

namespace qdq {

// The text of `path` when it is a regular file of at most `cap` bytes: no
// link is followed and nothing blocks (a FIFO, a device or a link to
// /dev/zero neither hangs nor spins the caller). False otherwise.
bool read_small_file(const std::string &path, std::size_t cap, std::string &text);

}  // namespace qdq
