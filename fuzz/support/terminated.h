// "Every text field ends within its field" for the records a parser fills.
#pragma once

#include <cstring>

#include "harness.h"

namespace qdq_fuzz {

template <size_t N>
void check_text(const char (&field)[N], const char *name) {
    if (strnlen(field, N) == N) fail("field without terminator:", name);
}

}  // namespace qdq_fuzz
