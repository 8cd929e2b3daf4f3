// The kernels for x86-64's vector units: SSE2, which every x86-64 processor has,
// and AVX2 and AVX-512 (with VBMI and VBMI2), compiled for their own instruction
// sets only here and chosen at run time.

#if defined(__x86_64__)

#if defined(__clang__)
#include <immintrin.h>
#else
// GCC 12 takes the unset operand that its intrinsics' unmasked forms pass on for an
// uninitialised read (fixed in GCC 13).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#endif

#include <algorithm>

#include "kernels_common.hpp"

#define TONDREL_AVX2 [[gnu::target("avx2,popcnt")]]
#define TONDREL_AVX512 [[gnu::target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,bmi2,popcnt")]]

namespace tondrel::kernels {
namespace {

// ---- SSE2: 16 bytes a block; base64 stays portable, as SSE2 has no byte shuffle.

unsigned escapeMarks(__m128i v) {
  __m128i controls = _mm_cmpeq_epi8(_mm_min_epu8(v, _mm_set1_epi8(0x1F)), v);
  __m128i quotes = _mm_cmpeq_epi8(v, _mm_set1_epi8('"'));
  __m128i backslashes = _mm_cmpeq_epi8(v, _mm_set1_epi8('\\'));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(controls, _mm_or_si128(quotes, backslashes))));
}

// Strings in compact JSON are mostly short: the wider paths look at their first 16
// bytes alone first, which finds the end of a short one sooner than a wide block.
const char* escapeIn16(const char* p) {
  unsigned marks = escapeMarks(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  return marks ? p + std::countr_zero(marks) : nullptr;
}

const char* findEscapeSse2(const char* p, const char* end) {
  for (; end - p >= 16; p += 16)
    if (unsigned marks = escapeMarks(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))))
      return p + std::countr_zero(marks);
  return findEscapePortable(p, end);
}

Escaped escapeSse2(const char* src, const char* end, char* dst, char* dstEnd) {
  for (; end - src >= 16 && roomFor(dst, dstEnd); src += 16) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    if (unsigned marks = escapeMarks(v)) {
      dst = escapeWords(src, marks, 2, dst);
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), v);
      dst += 16;
    }
  }
  return escapePortable(src, end, dst, dstEnd);
}

// ---- AVX2: 32 bytes a block.

TONDREL_AVX2 unsigned escapeMarks(__m256i v) {
  __m256i controls = _mm256_cmpeq_epi8(_mm256_min_epu8(v, _mm256_set1_epi8(0x1F)), v);
  __m256i quotes = _mm256_cmpeq_epi8(v, _mm256_set1_epi8('"'));
  __m256i backslashes = _mm256_cmpeq_epi8(v, _mm256_set1_epi8('\\'));
  return static_cast<unsigned>(
      _mm256_movemask_epi8(_mm256_or_si256(controls, _mm256_or_si256(quotes, backslashes))));
}

TONDREL_AVX2 const char* findEscapeAvx2(const char* p, const char* end) {
  if (end - p >= 16) {
    if (const char* found = escapeIn16(p)) return found;
    p += 16;
  }
  for (; end - p >= 32; p += 32)
    if (unsigned marks = escapeMarks(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))))
      return p + std::countr_zero(marks);
  return findEscapeSse2(p, end);
}

// Writes eight bytes, those marked after a backslash, from the low half of v with
// eight backslashes in its high half.
TONDREL_AVX2 char* spreadEscapes(__m128i v, unsigned marks, char* dst) {
  __m128i order = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kSpreads[marks].data()));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_shuffle_epi8(v, order));
  return dst + 8 + std::popcount(marks);
}

// Writes the 32 bytes of v, which also lie at src. With only two-byte escapes in
// them, eight bytes at a time are put in their places at once; with a \u00XX, a
// word at a time.
TONDREL_AVX2 char* escapeBlock(__m256i v, const char* src, char* dst) {
  unsigned marks = escapeMarks(v);
  if (!marks) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), v);
    return dst + 32;
  }
  // Each byte below 0x10 looks up its letter; the others, with the high bit set, find 0.
  __m256i controls = _mm256_cmpeq_epi8(_mm256_min_epu8(v, _mm256_set1_epi8(0x1F)), v);
  __m256i index = _mm256_or_si256(v, _mm256_cmpgt_epi8(v, _mm256_set1_epi8(0x0F)));
  __m256i letters = _mm256_shuffle_epi8(
      _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(kLetters.data()))), index);
  __m256i escaped = _mm256_blendv_epi8(v, letters, controls);
  if (_mm256_movemask_epi8(_mm256_cmpeq_epi8(escaped, _mm256_setzero_si256())))
    return escapeWords(src, marks, 4, dst);
  __m256i backslashes = _mm256_set1_epi8('\\');
  __m256i even = _mm256_unpacklo_epi64(escaped, backslashes),
          odd = _mm256_unpackhi_epi64(escaped, backslashes);
  dst = spreadEscapes(_mm256_castsi256_si128(even), marks & 0xFF, dst);
  dst = spreadEscapes(_mm256_castsi256_si128(odd), marks >> 8 & 0xFF, dst);
  dst = spreadEscapes(_mm256_extracti128_si256(even, 1), marks >> 16 & 0xFF, dst);
  return spreadEscapes(_mm256_extracti128_si256(odd, 1), marks >> 24, dst);
}

TONDREL_AVX2 Escaped escapeAvx2(const char* src, const char* end, char* dst, char* dstEnd) {
  for (; end - src >= 32 && roomFor(dst, dstEnd); src += 32)
    dst = escapeBlock(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src)), src, dst);
  return escapeSse2(src, end, dst, dstEnd);
}

// 24 bytes a block as 32 characters (the method of Muła and Lemire). Each block
// reads 32 bytes, so the blocks stop 8 bytes short of n.
TONDREL_AVX2 std::size_t base64Avx2(const unsigned char* src, std::size_t n, char* dst) {
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
  for (; n - i >= 32; i += 24, dst += 32) {
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
  return i + base64Portable(src + i, n - i, dst);
}

// ---- AVX-512 with VBMI and VBMI2: 64 bytes a block, the bytes after the last block
// loaded under a mask (masked loads of the whole are slower).

TONDREL_AVX512 __mmask64 firstBytes(std::size_t n) {
  return _bzhi_u64(~0ULL, static_cast<unsigned>(n));
}

TONDREL_AVX512 __mmask64 escapeMarks(__m512i v) {
  return _mm512_cmplt_epu8_mask(v, _mm512_set1_epi8(0x20)) |
         _mm512_cmpeq_epi8_mask(v, _mm512_set1_epi8('"')) | _mm512_cmpeq_epi8_mask(v, _mm512_set1_epi8('\\'));
}

TONDREL_AVX512 const char* findEscapeAvx512(const char* p, const char* end) {
  if (end - p >= 16) {
    if (const char* found = escapeIn16(p)) return found;
    p += 16;
  }
  for (; end - p >= 64; p += 64)
    if (__mmask64 marks = escapeMarks(_mm512_loadu_si512(p))) return p + std::countr_zero(marks);
  __mmask64 valid = firstBytes(end - p);
  __mmask64 marks = escapeMarks(_mm512_maskz_loadu_epi8(valid, p)) & valid;
  return marks ? p + std::countr_zero(marks) : end;
}

// Writes the 32 bytes in the low half of v, each marked one after a backslash.
TONDREL_AVX512 char* expandEscapes(__m512i v, std::uint32_t marks, char* dst) {
  // Two places for each byte, the first kept for a marked byte's backslash only.
  std::uint64_t used = _pdep_u64(marks, 0x5555555555555555ULL) | 0xAAAAAAAAAAAAAAAAULL;
  std::uint64_t bytes = _pext_u64(0xAAAAAAAAAAAAAAAAULL, used);
  _mm512_storeu_si512(dst, _mm512_mask_expand_epi8(_mm512_set1_epi8('\\'), bytes, v));
  return dst + 32 + std::popcount(marks);
}

// Writes the 64 bytes of v, which also lie at src. With only two-byte escapes in
// them, each byte is put in its place at once; with a \u00XX, a word at a time.
// Inlined in both its callers, for a plain block to cost no more than a store.
[[gnu::always_inline]] TONDREL_AVX512 inline char* escapeBlock(__m512i v, const char* src, char* dst) {
  __mmask64 marks = escapeMarks(v);
  if (!marks) {
    _mm512_storeu_si512(dst, v);
    return dst + 64;
  }
  __mmask64 controls = _mm512_cmplt_epu8_mask(v, _mm512_set1_epi8(0x20));
  __m512i letters =
      _mm512_broadcast_i64x4(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(kLetters.data())));
  __m512i escaped = _mm512_mask_permutexvar_epi8(v, controls, v, letters);
  if (_mm512_mask_cmpeq_epi8_mask(controls, escaped, _mm512_setzero_si512()))
    return escapeWords(src, marks, 8, dst);
  dst = expandEscapes(escaped, static_cast<std::uint32_t>(marks), dst);
  return expandEscapes(_mm512_castsi256_si512(_mm512_extracti64x4_epi64(escaped, 1)),
                       static_cast<std::uint32_t>(marks >> 32), dst);
}

TONDREL_AVX512 Escaped escapeAvx512(const char* src, const char* end, char* dst, char* dstEnd) {
  for (; end - src >= 64 && roomFor(dst, dstEnd); src += 64)
    dst = escapeBlock(_mm512_loadu_si512(src), src, dst);
  if (src < end && roomFor(dst, dstEnd)) {
    // The last bytes as a whole block, with spaces after them, written as they are and taken back.
    std::size_t n = end - src;
    alignas(64) char block[64];
    __m512i v = _mm512_mask_loadu_epi8(_mm512_set1_epi8(' '), firstBytes(n), src);
    _mm512_store_si512(block, v);
    dst = escapeBlock(v, block, dst) - (64 - n);
    src = end;
  }
  return {src, dst};
}

// 48 bytes a block as 64 characters: each group of three bytes is gathered as the
// four bytes b1 b0 b2 b1, the four 6-bit indices are cut from each at once, and each
// index picks its character.
TONDREL_AVX512 __m512i base64Block(__m512i in) {
  alignas(64) static constexpr auto kGroups = [] {
    std::array<char, 64> groups{};
    for (int g = 0; g < 16; ++g)
      for (int k = 0; k < 4; ++k) groups[4 * g + k] = static_cast<char>(3 * g + std::array{1, 0, 2, 1}[k]);
    return groups;
  }();
  // In each 64-bit half of b1 b0 b2 b1 | b1 b0 b2 b1, the bit where each index starts.
  const __m512i shifts = _mm512_set1_epi64(0x3036242a1016040a);
  __m512i indices =
      _mm512_multishift_epi64_epi8(shifts, _mm512_permutexvar_epi8(_mm512_load_si512(kGroups.data()), in));
  return _mm512_permutexvar_epi8(indices, _mm512_loadu_si512(kBase64Alphabet));
}

// A block reads 64 bytes for its 48 while that many are there; the rest under a mask.
TONDREL_AVX512 std::size_t base64Avx512(const unsigned char* src, std::size_t n, char* dst) {
  std::size_t i = 0, whole = n - n % 3;
  for (; n - i >= 64; i += 48, dst += 64) _mm512_storeu_si512(dst, base64Block(_mm512_loadu_si512(src + i)));
  for (; i < whole; i += 48, dst += 64) {
    std::size_t taken = std::min<std::size_t>(whole - i, 48);
    _mm512_mask_storeu_epi8(dst, firstBytes(taken / 3 * 4),
                            base64Block(_mm512_maskz_loadu_epi8(firstBytes(taken), src + i)));
  }
  return whole;
}

}  // namespace

const Kernels kSse2{Path::sse2, "sse2", findEscapeSse2, escapeSse2, base64Portable};
const Kernels kAvx2{Path::avx2, "avx2", findEscapeAvx2, escapeAvx2, base64Avx2};
const Kernels kAvx512{Path::avx512, "avx512", findEscapeAvx512, escapeAvx512, base64Avx512};

}  // namespace tondrel::kernels

#endif
