// decrypt_aes on any hexadecimal text, and the getaes / decrypt_aes round
// trip on any short text. The first byte picks the check; the key is fixed.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "support/harness.h"

namespace {

const char kKey[] = "0123456789abcdef0123456789ABCDEF";
// decrypt_aes writes at most one character per byte of its 256-byte work
// buffer, and a terminator. Heap blocks of the exact size, so that one
// byte more is an overflow the sanitizer sees.
constexpr size_t kTextOut = 257;
// getaes: two digits per byte of at most 256 bytes of cipher text, and a NUL.
constexpr size_t kHexOut = 513;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    if (size < 1) return 0;
    const std::string text = qdq_fuzz::text(data + 1, size - 1);
    std::unique_ptr<char[]> out(new char[kTextOut]);
    if ((data[0] & 1) == 0) {
        int rc = decrypt_aes(text.c_str(), out.get(), kKey);
        if (rc == 0 && strnlen(out.get(), kTextOut) == kTextOut) qdq_fuzz::fail("decrypted text unterminated");
        return 0;
    }
    std::unique_ptr<char[]> hex(new char[kHexOut]);
    if (getaes(text.c_str(), hex.get(), kKey) != 0) {
        if (text.size() <= 239) qdq_fuzz::fail("getaes refused a short text");
        return 0;
    }
    if (std::strlen(hex.get()) != 32 * (text.size() / 16 + 1)) qdq_fuzz::fail("cipher text length");
    if (decrypt_aes(hex.get(), out.get(), kKey) != 0) qdq_fuzz::fail("own cipher text refused");
    std::string expected;
    for (char c : text)
        if (static_cast<unsigned char>(c) >= 17) expected += c;
    if (expected != out.get()) qdq_fuzz::fail("round trip");
    return 0;
}
