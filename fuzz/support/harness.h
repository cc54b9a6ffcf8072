// Shared set-up of the fuzz targets: every target runs the library in a
// private root with a fast clock, no timer tick and fixed records, and puts
// that state back before each input so that an input behaves the same in
// the fuzzer, in the replay test and on its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "qdquick/qdquick.h"

namespace qdq_fuzz {

// Once per process, before any library call (the root and the time scale
// are read once): private root, clock scale, host callbacks.
void setup();

// The scope of one input: sets the process up on first use, and marks the
// time in which a shell command can only have come from the library (the
// engine runs commands of its own, for merging, outside it).
class Input {
public:
    Input();
    ~Input();
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;
};

// Before each input: records, module globals, timer table and the platform
// double back to their baseline.
void reset();

// After each input: waits for the workers the input started (event pushes)
// so that the next input starts from the same state.
void settle();

// The input as a text: everything up to the first NUL.
std::string text(const uint8_t *data, size_t size);

// Aborts, naming a broken property, so that the fuzzer records the input.
[[noreturn]] void fail(const char *what, const std::string &detail = "");

// Every text field of the record ends within the field.
void check_record(const platinfo &rec, const char *which);

}  // namespace qdq_fuzz
