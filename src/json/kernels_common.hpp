#pragma once

// What the kernels of every path share: the escaped form of each byte, the writing
// of one word with its escapes marked, and the portable kernels, with which the
// vector ones also finish what is shorter than their block.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "kernels.hpp"

namespace tondrel::kernels {

// The first byte in memory is the lowest of a word, as on every platform we build for.
static_assert(std::endian::native == std::endian::little);

inline std::uint64_t load8(const char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  return word;
}

inline void store8(char* p, std::uint64_t word) {
  std::memcpy(p, &word, 8);
}

inline bool roomFor(const char* dst, const char* dstEnd) {
  return static_cast<std::size_t>(dstEnd - dst) >= kEscapeRoom;
}

// The escaped form of each byte that has one ('\\' is the highest), as up to eight
// bytes to store at once, and its length.
struct Escapes {
  std::array<std::uint64_t, '\\' + 1> text{};
  std::array<std::uint8_t, '\\' + 1> length{};
};
inline constexpr Escapes kEscapes = [] {
  Escapes e;
  auto set = [&](unsigned char c, std::array<char, 6> form, std::uint8_t length) {
    e.text[c] = 0;
    for (std::size_t i = 0; i < length; ++i)
      e.text[c] |= std::uint64_t(static_cast<unsigned char>(form[i])) << 8 * i;
    e.length[c] = length;
  };
  constexpr char kHex[] = "0123456789abcdef";
  for (int c = 0; c < 0x20; ++c) set(c, {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]}, 6);
  for (auto [c, letter] :
       {std::pair{'"', '"'}, {'\\', '\\'}, {'\b', 'b'}, {'\f', 'f'}, {'\n', 'n'}, {'\r', 'r'}, {'\t', 't'}})
    set(c, {'\\', letter}, 2);
  return e;
}();

inline bool mustEscape(unsigned char c) {
  return c < 0x20 || c == '"' || c == '\\';
}

// Writes the escaped form of c, which must be a byte that has one.
inline char* escapeByte(unsigned char c, char* dst) {
  store8(dst, kEscapes.text[c]);
  return dst + kEscapes.length[c];
}

// Writes the eight bytes at src, escaping those marked: kBits bits of marks for each
// byte, one of them set when it is marked. Each store writes eight bytes, for the
// next to overwrite what lies past its own.
template <int kBits>
char* escapeWord(const char* src, std::uint64_t marks, char* dst) {
  std::uint64_t word = load8(src);
  int from = 0;
  for (; marks; marks &= marks - 1) {
    int i = std::countr_zero(marks) / kBits;
    store8(dst, word >> 8 * from);
    dst += i - from;
    dst = escapeByte(static_cast<unsigned char>(src[i]), dst);
    from = i + 1;
  }
  if (from < 8) {
    store8(dst, word >> 8 * from);
    dst += 8 - from;
  }
  return dst;
}

// Writes the block of 8 * words bytes at src, escaping those marked, one bit for each.
inline char* escapeWords(const char* src, std::uint64_t marks, int words, char* dst) {
  for (int k = 0; k < words; ++k) dst = escapeWord<1>(src + 8 * k, (marks >> 8 * k) & 0xFF, dst);
  return dst;
}

// For each set of marks on eight bytes (a bit for each), which bytes to pick, in
// order, from the eight followed by eight backslashes: a backslash before each
// marked byte. A table lookup (pshufb, tbl) with it writes the eight with their
// escapes at once, where each escape is two bytes.
inline constexpr auto kSpreads = [] {
  std::array<std::array<std::uint8_t, 16>, 256> spreads{};
  for (int marks = 0; marks < 256; ++marks)
    for (std::size_t i = 0, j = 0; j < 8; ++j) {
      if (marks >> j & 1) spreads[marks][i++] = 8;
      spreads[marks][i++] = static_cast<std::uint8_t>(j);
    }
  return spreads;
}();

// The letter after the backslash for each byte below 0x20 that has one, else 0.
inline constexpr auto kLetters = [] {
  std::array<std::uint8_t, 32> letters{};
  for (auto [c, letter] : {std::pair{'\b', 'b'}, {'\f', 'f'}, {'\n', 'n'}, {'\r', 'r'}, {'\t', 't'}})
    letters[static_cast<unsigned char>(c)] = static_cast<std::uint8_t>(letter);
  return letters;
}();

inline constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const char* findEscapePortable(const char* p, const char* end);
Escaped escapePortable(const char* src, const char* end, char* dst, char* dstEnd);
std::size_t base64Portable(const unsigned char* src, std::size_t n, char* dst);

#if defined(__x86_64__)
extern const Kernels kSse2, kAvx2, kAvx512;
#elif defined(__aarch64__)
extern const Kernels kNeon;
#endif

}  // namespace tondrel::kernels
