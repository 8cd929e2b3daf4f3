#pragma once

// The byte loops under the JSON writer and the compactor: finding what a JSON
// string must escape, escaping it, and base64. Each has a portable form and
// forms for the vector units of x86-64 (chosen at run time) and of AArch64.

#include <cstddef>
#include <span>
#include <string_view>

namespace tondrel::kernels {

enum class Path { portable, sse2, avx2, avx512, neon };

// Where an escape stopped in its source and in its output.
struct Escaped {
  const char* src;
  char* dst;
};

// The output room an escape needs to take one more block: the widest block (64 bytes)
// all control characters at six bytes each, and the rest of the last word, stored whole.
inline constexpr std::size_t kEscapeRoom = 64 * 6 + 8;

struct Kernels {
  Path path;
  std::string_view name;
  // The first byte of [p, end) that a JSON string must escape (below 0x20, '"' or '\\'); end when none.
  const char* (*findEscape)(const char* p, const char* end);
  // Writes [src, end) as the inside of a JSON string: '"' and '\\' as \" and \\, \b \f \n \r \t
  // as such, every other byte below 0x20 as \u00XX in lower-case hex, the rest unchanged.
  // It takes another block only while dstEnd - dst >= kEscapeRoom and may write anywhere
  // in [dst, dstEnd), so a caller short of room grows it and calls again from where it stopped.
  Escaped (*escape)(const char* src, const char* end, char* dst, char* dstEnd);
  // Base64 (A-Z a-z 0-9 + /) of the first n - n % 3 bytes of src: exactly 4 characters
  // for every 3 bytes written to dst, no padding. Returns how many bytes it encoded.
  std::size_t (*base64)(const unsigned char* src, std::size_t n, char* dst);
};

// The widest kernels this processor runs, chosen at the first call.
const Kernels& kernels();

// Every path this build and this processor run, portable first and the widest last.
std::span<const Kernels> availableKernels();

}  // namespace tondrel::kernels
