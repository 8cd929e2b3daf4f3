#include "base64.hpp"

#include <array>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define TONDREL_WIDE_BASE64 1
#endif

namespace tondrel {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

#ifdef TONDREL_WIDE_BASE64
bool hasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}

// Base64 of 24 bytes at a time as 32 characters, on CPUs with AVX2 (the method of
// Muła and Lemire): each block reads 32 bytes, so it stops 8 short of n. Returns
// how many bytes it encoded, a multiple of 24.
[[gnu::target("avx2")]] std::size_t wideBase64(const unsigned char* src, std::size_t n, char* dst) {
  // Bytes 0-11 and 12-23 of a block to the two halves, then each group of three
  // as the four bytes b1 b0 b2 b1, from which the four 6-bit indices are cut.
  const __m256i halves = _mm256_setr_epi32(0, 1, 2, 0, 3, 4, 5, 0);
  const __m256i groups = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, 1, 0, 2, 1, 4, 3,
                                          5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
  // What to add to an index for its character, looked up by which range it is in.
  const __m256i offsets = _mm256_setr_epi8(
      'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
      '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0, 'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
      '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  std::size_t i = 0;
  for (; i + 32 <= n; i += 24, dst += 32) {
    __m256i in = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
    in = _mm256_shuffle_epi8(_mm256_permutevar8x32_epi32(in, halves), groups);
    __m256i high = _mm256_mulhi_epu16(_mm256_and_si256(in, _mm256_set1_epi32(0x0fc0fc00)),
                                      _mm256_set1_epi32(0x04000040));
    __m256i low = _mm256_mullo_epi16(_mm256_and_si256(in, _mm256_set1_epi32(0x003f03f0)),
                                     _mm256_set1_epi32(0x01000010));
    __m256i indices = _mm256_or_si256(high, low);
    __m256i range = _mm256_subs_epu8(indices, _mm256_set1_epi8(51));
    __m256i letters = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), indices);
    range = _mm256_or_si256(range, _mm256_and_si256(letters, _mm256_set1_epi8(13)));
    __m256i text = _mm256_add_epi8(_mm256_shuffle_epi8(offsets, range), indices);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), text);
  }
  return i;
}
#endif

}  // namespace

std::size_t encodeBase64Groups(const unsigned char* src, std::size_t n, char* dst) {
  // Two characters per 12 bits: half the lookups of one per 6 bits.
  static const auto kPairs = [] {
    std::array<char, 2 * 4096> pairs{};
    for (int i = 0; i < 4096; ++i) pairs[2 * i] = kAlphabet[i >> 6], pairs[2 * i + 1] = kAlphabet[i & 63];
    return pairs;
  }();
  std::size_t i = 0, whole = n - n % 3;
#ifdef TONDREL_WIDE_BASE64
  if (hasAvx2()) {
    i = wideBase64(src, whole, dst);
    dst += i / 3 * 4;
  }
#endif
  for (; i < whole; i += 3, dst += 4) {
    std::uint32_t v = (src[i] << 16) | (src[i + 1] << 8) | src[i + 2];
    std::memcpy(dst, &kPairs[2 * (v >> 12)], 2);
    std::memcpy(dst + 2, &kPairs[2 * (v & 4095)], 2);
  }
  return whole;
}

void encodeBase64Tail(const unsigned char* src, std::size_t n, char* dst) {
  std::uint32_t v = src[0] << 16 | (n > 1 ? src[1] << 8 : 0);
  dst[0] = kAlphabet[v >> 18];
  dst[1] = kAlphabet[(v >> 12) & 63];
  dst[2] = n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
  dst[3] = '=';
}

}  // namespace tondrel
