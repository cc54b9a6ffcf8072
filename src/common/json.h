// The library's JSON helpers around cJSON: owning pointers for trees and
// printed texts, and a bounded copy of a printed tree.
#pragma once

#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace qdq {

struct JsonDeleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
using CText = std::unique_ptr<char, FreeDeleter>;

// Prints `item` formatted (cJSON_Print) into out[cap]. Returns the text
// length, or -1 when printing fails or the text does not fit (out is then
// the empty string).
int print_into(const cJSON *item, char *out, std::size_t cap);

}  // namespace qdq
