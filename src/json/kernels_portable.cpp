// The portable kernels, eight bytes at a time in a general register; the vector
// paths finish with them what is shorter than their block.

#include <array>

#include "kernels_common.hpp"

namespace tondrel::kernels {
namespace {

constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kHighs = 0x8080808080808080ULL;

// The high bit of each byte of w that is equal to c; exact, since no carry crosses bytes.
std::uint64_t equalMarks(std::uint64_t w, unsigned char c) {
  std::uint64_t x = w ^ (c * kOnes);
  return ~(((x & ~kHighs) + ~kHighs) | x) & kHighs;
}

// The high bit of each byte of w to escape; for those below 0x20 no carry crosses bytes either,
// since 0x7F + 0x60 < 0x100.
std::uint64_t escapeMarks(std::uint64_t w) {
  return (~(((w & ~kHighs) + 0x60 * kOnes) | w) & kHighs) | equalMarks(w, '"') | equalMarks(w, '\\');
}

// Two characters for each 12 bits: half the lookups of one for each 6.
constexpr auto kBase64Pairs = [] {
  std::array<char, 2 * 4096> pairs{};
  for (int i = 0; i < 4096; ++i)
    pairs[2 * i] = kBase64Alphabet[i >> 6], pairs[2 * i + 1] = kBase64Alphabet[i & 63];
  return pairs;
}();

}  // namespace

const char* findEscapePortable(const char* p, const char* end) {
  for (; end - p >= 8; p += 8)
    if (std::uint64_t marks = escapeMarks(load8(p))) return p + std::countr_zero(marks) / 8;
  while (p < end && !mustEscape(static_cast<unsigned char>(*p))) ++p;
  return p;
}

Escaped escapePortable(const char* src, const char* end, char* dst, char* dstEnd) {
  for (; end - src >= 8 && roomFor(dst, dstEnd); src += 8)
    dst = escapeWord<8>(src, escapeMarks(load8(src)), dst);
  for (; src < end && roomFor(dst, dstEnd); ++src) {
    auto c = static_cast<unsigned char>(*src);
    if (mustEscape(c)) {
      dst = escapeByte(c, dst);
    } else {
      *dst++ = static_cast<char>(c);
    }
  }
  return {src, dst};
}

std::size_t base64Portable(const unsigned char* src, std::size_t n, char* dst) {
  std::size_t whole = n - n % 3;
  for (std::size_t i = 0; i < whole; i += 3, dst += 4) {
    std::uint32_t v = (src[i] << 16) | (src[i + 1] << 8) | src[i + 2];
    std::memcpy(dst, &kBase64Pairs[2 * (v >> 12)], 2);
    std::memcpy(dst + 2, &kBase64Pairs[2 * (v & 4095)], 2);
  }
  return whole;
}

}  // namespace tondrel::kernels
