// The bytes a JSON string cannot hold as they stand: the quotation mark, the
// backslash and the control characters. The writer and the compactor both look
// for them eight bytes at a time, through this one scan.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace tondrel {

namespace escape_scan {
inline constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
inline constexpr std::uint64_t kHighs = 0x8080808080808080ULL;
static_assert(std::endian::native == std::endian::little, "the first byte in memory is the lowest");

// The high bit of each byte of w that equals c: exact, no carry crosses bytes.
constexpr std::uint64_t equalMask(std::uint64_t w, unsigned char c) {
  std::uint64_t x = w ^ (c * kOnes);
  return ~(((x & ~kHighs) + ~kHighs) | x) & kHighs;
}
}  // namespace escape_scan

// The high bit of each byte of w that is a control character (below 0x20): no
// carry crosses bytes, since 0x7F + 0x60 < 0x100.
constexpr std::uint64_t controlMask(std::uint64_t w) {
  using namespace escape_scan;
  return ~(((w & ~kHighs) + 0x60 * kOnes) | w) & kHighs;
}

// The high bit of each byte of w that a JSON string must escape.
constexpr std::uint64_t escapeMask(std::uint64_t w) {
  return controlMask(w) | escape_scan::equalMask(w, '"') | escape_scan::equalMask(w, '\\');
}

// Where the first marked byte of a mask is, in bytes from the word's first.
constexpr int firstMarked(std::uint64_t mask) {
  return std::countr_zero(mask) >> 3;
}

inline std::uint64_t loadWord(const char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  return word;
}

// The first byte of [p, end) that a JSON string must escape; end when none.
inline const char* findEscape(const char* p, const char* end) {
  for (; end - p >= 8; p += 8)
    if (std::uint64_t mask = escapeMask(loadWord(p))) return p + firstMarked(mask);
  for (; p < end; ++p)
    if (static_cast<unsigned char>(*p) < 0x20 || *p == '"' || *p == '\\') return p;
  return end;
}

}  // namespace tondrel
