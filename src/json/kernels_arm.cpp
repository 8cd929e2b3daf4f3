// The kernels for AArch64's NEON, which every AArch64 processor has (Apple's among them):
// 16 bytes a block for the escapes, 48 for base64.

#if defined(__aarch64__)

#if !defined(__ARM_NEON)
#error "AArch64 builds take the NEON kernels: build with NEON"
#endif

#include <arm_neon.h>

#include "kernels_common.hpp"

namespace tondrel::kernels {
namespace {

uint8x16_t escapeMarks(uint8x16_t v) {
  return vorrq_u8(vcltq_u8(v, vdupq_n_u8(0x20)),
                  vorrq_u8(vceqq_u8(v, vdupq_n_u8('"')), vceqq_u8(v, vdupq_n_u8('\\'))));
}

// Four bits for each byte marked: NEON has no movemask, but narrowing each 16-bit
// lane by a shift of four keeps half of each byte.
std::uint64_t nibbles(uint8x16_t marks) {
  return vget_lane_u64(vreinterpret_u64_u8(vshrn_n_u16(vreinterpretq_u16_u8(marks), 4)), 0);
}

// One bit for each byte marked: each half's marks weighted by their places, and added.
unsigned bits(uint8x16_t marks) {
  const uint8x16_t places = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
  uint8x16_t weighted = vandq_u8(marks, places);
  return vaddv_u8(vget_low_u8(weighted)) | unsigned{vaddv_u8(vget_high_u8(weighted))} << 8;
}

const char* findEscapeNeon(const char* p, const char* end) {
  for (; end - p >= 16; p += 16)
    if (std::uint64_t marks = nibbles(escapeMarks(vld1q_u8(reinterpret_cast<const std::uint8_t*>(p)))))
      return p + std::countr_zero(marks) / 4;
  return findEscapePortable(p, end);
}

// Writes eight bytes, those marked after a backslash, from v with eight backslashes after them.
char* spreadEscapes(uint8x16_t v, unsigned marks, char* dst) {
  vst1q_u8(reinterpret_cast<std::uint8_t*>(dst), vqtbl1q_u8(v, vld1q_u8(kSpreads[marks].data())));
  return dst + 8 + std::popcount(marks);
}

// With only two-byte escapes in a block, eight bytes at a time are put in their
// places at once; with a \u00XX, a word at a time.
Escaped escapeNeon(const char* src, const char* end, char* dst, char* dstEnd) {
  const uint8x16x2_t letters = vld1q_u8_x2(kLetters.data());
  const uint8x8_t backslashes = vdup_n_u8('\\');
  for (; end - src >= 16 && roomFor(dst, dstEnd); src += 16) {
    uint8x16_t v = vld1q_u8(reinterpret_cast<const std::uint8_t*>(src));
    uint8x16_t marks = escapeMarks(v);
    if (!nibbles(marks)) {
      vst1q_u8(reinterpret_cast<std::uint8_t*>(dst), v);
      dst += 16;
      continue;
    }
    unsigned marked = bits(marks);
    uint8x16_t escaped = vbslq_u8(vcltq_u8(v, vdupq_n_u8(0x20)), vqtbl2q_u8(letters, v), v);
    if (vminvq_u8(escaped) == 0) {
      dst = escapeWords(src, marked, 2, dst);
      continue;
    }
    dst = spreadEscapes(vcombine_u8(vget_low_u8(escaped), backslashes), marked & 0xFF, dst);
    dst = spreadEscapes(vcombine_u8(vget_high_u8(escaped), backslashes), marked >> 8, dst);
  }
  return escapePortable(src, end, dst, dstEnd);
}

// Loaded as three vectors of each group's first, second and third bytes, cut into
// four vectors of indices, looked up in the 64-byte alphabet and stored interleaved.
std::size_t base64Neon(const unsigned char* src, std::size_t n, char* dst) {
  const uint8x16x4_t alphabet = vld1q_u8_x4(reinterpret_cast<const std::uint8_t*>(kBase64Alphabet));
  const uint8x16_t lowSix = vdupq_n_u8(63);
  std::size_t i = 0;
  for (; n - i >= 48; i += 48, dst += 64) {
    uint8x16x3_t in = vld3q_u8(src + i);
    uint8x16x4_t indices;
    indices.val[0] = vshrq_n_u8(in.val[0], 2);
    indices.val[1] = vandq_u8(vorrq_u8(vshlq_n_u8(in.val[0], 4), vshrq_n_u8(in.val[1], 4)), lowSix);
    indices.val[2] = vandq_u8(vorrq_u8(vshlq_n_u8(in.val[1], 2), vshrq_n_u8(in.val[2], 6)), lowSix);
    indices.val[3] = vandq_u8(in.val[2], lowSix);
    uint8x16x4_t text;
    for (int k = 0; k < 4; ++k) text.val[k] = vqtbl4q_u8(alphabet, indices.val[k]);
    vst4q_u8(reinterpret_cast<std::uint8_t*>(dst), text);
  }
  return i + base64Portable(src + i, n - i, dst);
}

}  // namespace

const Kernels kNeon{Path::neon, "neon", findEscapeNeon, escapeNeon, base64Neon};

}  // namespace tondrel::kernels

#endif
