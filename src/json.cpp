#include "json.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "shortest_double.hpp"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define TONDREL_WIDE_BASE64 1
#endif

namespace tondrel {
namespace {

// Room kept after a long string for a few escapes and the rest of the message.
constexpr std::size_t kSlack = 4096;
constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kHighs = 0x8080808080808080ULL;

std::uint64_t load(const char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  return word;
}

// Exact masks, with the high bit of each byte of a word that is ...
// ... a control character (below 0x20): no carry crosses bytes, since 0x7F + 0x60 < 0x100;
std::uint64_t controlMask(std::uint64_t w) {
  return ~(((w & ~kHighs) + 0x60 * kOnes) | w) & kHighs;
}
// ... equal to c;
std::uint64_t equalMask(std::uint64_t w, char c) {
  std::uint64_t x = w ^ (static_cast<unsigned char>(c) * kOnes);
  return ~(((x & ~kHighs) + ~kHighs) | x) & kHighs;
}
// ... to be escaped. The first byte in memory is the lowest, as on every platform we build for.
static_assert(std::endian::native == std::endian::little);
std::uint64_t escapeMask(std::uint64_t w) {
  return controlMask(w) | equalMask(w, '"') | equalMask(w, '\\');
}
int byteIndex(std::uint64_t mask) {
  return std::countr_zero(mask) >> 3;
}
// How many bytes are marked; std::popcount is a library call without -mpopcnt.
std::size_t byteCount(std::uint64_t mask) {
  return ((mask >> 7) * kOnes) >> 56;
}

void store(char* o, std::uint64_t word) {
  std::memcpy(o, &word, 8);
}

// The escaped form of each byte as up to eight bytes to store at once, and how
// many bytes it adds: one for \" \\ \b \f \n \r \t, five for the other control
// characters (\u00XX), none for the rest.
struct Escapes {
  std::array<std::uint64_t, 256> text{};
  std::array<std::uint8_t, 256> extra{};
};
constexpr Escapes kEscapes = [] {
  Escapes e;
  auto set = [&](unsigned char c, std::array<char, 6> form, std::size_t length) {
    e.text[c] = 0;
    for (std::size_t i = 0; i < length; ++i)
      e.text[c] |= std::uint64_t(static_cast<unsigned char>(form[i])) << 8 * i;
    e.extra[c] = static_cast<std::uint8_t>(length - 1);
  };
  constexpr char kHex[] = "0123456789abcdef";
  for (int c = 0; c < 0x20; ++c) set(c, {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]}, 6);
  for (auto [c, letter] :
       {std::pair{'"', '"'}, {'\\', '\\'}, {'\b', 'b'}, {'\f', 'f'}, {'\n', 'n'}, {'\r', 'r'}, {'\t', 't'}})
    set(c, {'\\', letter}, 2);
  return e;
}();

// Length of the valid UTF-8 sequence at s[i], or 0 with `bad` set to how many
// bytes form the maximal invalid subpart that one U+FFFD replaces.
std::size_t sequenceLength(std::string_view s, std::size_t i, std::size_t& bad) {
  auto c = static_cast<unsigned char>(s[i]);
  std::size_t length;
  unsigned char low = 0x80, high = 0xBF;
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;   // no overlong forms
    if (c == 0xED) high = 0x9F;  // no surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;   // no overlong forms
    if (c == 0xF4) high = 0x8F;  // nothing past U+10FFFF
  } else {
    bad = 1;
    return 0;
  }
  for (std::size_t k = 1; k < length; ++k) {
    if (i + k >= s.size()) return bad = k, 0;
    auto next = static_cast<unsigned char>(s[i + k]);
    if (next < low || next > high) return bad = k, 0;
    low = 0x80, high = 0xBF;
  }
  return length;
}

// Decodes the code point of a valid sequence.
char32_t codePoint(std::string_view s, std::size_t i, std::size_t length) {
  auto c = static_cast<unsigned char>(s[i]);
  if (length == 1) return c;
  char32_t cp = c & (0x7F >> length);
  for (std::size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
  return cp;
}

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

bool isWhitespace(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

}  // namespace

JsonWriter& JsonWriter::beginObject() {
  separate();
  out_.push_back('{');
  needComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  out_.push_back('}');
  needComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  separate();
  out_.push_back('[');
  needComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  out_.push_back(']');
  needComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  separate();
  quoted(name);
  out_.push_back(':');
  needComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::string(std::string_view text) {
  separate();
  quoted(text);
  return *this;
}

JsonWriter& JsonWriter::lossyString(std::string_view bytes) {
  if (simdjson::validate_utf8(bytes.data(), bytes.size())) return string(bytes);
  std::string repaired;
  return string(decodeUtf8(bytes, repaired));
}

JsonWriter& JsonWriter::base64String(std::string_view bytes) {
  separate();
  // Room for the whole encoding and what usually follows it, so the buffer never
  // grows (and copies) mid-way.
  out_.reserve(out_.size() + (bytes.size() + 2) / 3 * 4 + kSlack);
  out_.push_back('"');
  base64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  out_.push_back('"');
  return *this;
}

JsonWriter& JsonWriter::beginString() {
  separate();
  out_.push_back('"');
  return *this;
}

void JsonWriter::base64Piece(std::string_view bytes, std::string& carry) {
  if (!carry.empty()) {
    std::size_t taken = std::min(bytes.size(), 3 - carry.size());
    carry.append(bytes.substr(0, taken));
    bytes.remove_prefix(taken);
    if (carry.size() < 3) return;
    base64(reinterpret_cast<const unsigned char*>(carry.data()), 3);
    carry.clear();
  }
  std::size_t whole = bytes.size() - bytes.size() % 3;
  grow(whole / 3 * 4);
  base64(reinterpret_cast<const unsigned char*>(bytes.data()), whole);
  carry.assign(bytes.substr(whole));
}

JsonWriter& JsonWriter::endBase64String(std::string& carry) {
  base64(reinterpret_cast<const unsigned char*>(carry.data()), carry.size());
  carry.clear();
  out_.push_back('"');
  return *this;
}

void JsonWriter::lossyPiece(std::string_view bytes, std::string& carry) {
  if (!carry.empty()) {
    // The sequences that begin in the carried bytes, judged with what follows them:
    // no sequence is longer than four bytes.
    std::string joined = carry, repaired;
    joined.append(bytes.substr(0, std::min<std::size_t>(bytes.size(), 3)));
    std::size_t i = 0;
    while (i < carry.size()) {
      std::size_t bad = 0, length = sequenceLength(joined, i, bad);
      if (length == 0 && i + bad >= joined.size() && joined.size() == carry.size() + bytes.size()) {
        escaped(repaired);
        carry.erase(0, i);
        carry.append(bytes);
        return;
      }
      if (length == 0) {
        repaired += "\xEF\xBF\xBD";
        i += bad;
      } else {
        repaired.append(joined, i, length);
        i += length;
      }
    }
    escaped(repaired);
    bytes.remove_prefix(i - carry.size());
    carry.clear();
  }
  // A sequence the piece ends inside waits for the rest. The decoder starts a
  // sequence at every byte from 0xC0 up (no sequence takes one as a continuation),
  // so the split falls where it would have started anyway.
  std::size_t end = bytes.size();
  for (std::size_t back = 1; back <= std::min<std::size_t>(3, bytes.size()); ++back) {
    auto c = static_cast<unsigned char>(bytes[bytes.size() - back]);
    if (c >= 0x80 && c < 0xC0) continue;
    std::size_t expected = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    if (expected > back) end = bytes.size() - back;
    break;
  }
  std::string repaired;
  escaped(decodeUtf8(bytes.substr(0, end), repaired));
  carry.assign(bytes.substr(end));
}

JsonWriter& JsonWriter::endLossyString(std::string& carry) {
  std::string repaired;
  escaped(decodeUtf8(carry, repaired));
  carry.clear();
  out_.push_back('"');
  return *this;
}

void JsonWriter::grow(std::size_t more) {
  if (out_.size() + more + 8 <= out_.capacity()) return;
  out_.reserve(std::max(out_.size() + more + kSlack, out_.capacity() + out_.capacity() / 2));
}

void JsonWriter::base64(const unsigned char* src, std::size_t n) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  // Two characters per 12 bits: half the lookups of one per 6 bits.
  static const auto kPairs = [] {
    std::array<char, 2 * 4096> pairs{};
    for (int i = 0; i < 4096; ++i) pairs[2 * i] = kAlphabet[i >> 6], pairs[2 * i + 1] = kAlphabet[i & 63];
    return pairs;
  }();
  // Chunks through a small buffer spare the zero-fill of resizing first.
  std::size_t i = 0;
  char chunk[4096];
  while (i + 3 <= n) {
    char* dst = chunk;
    std::size_t end = std::min(n - n % 3, i + sizeof chunk / 4 * 3);
#ifdef TONDREL_WIDE_BASE64
    if (hasAvx2()) {
      std::size_t done = wideBase64(src + i, end - i, dst);
      i += done, dst += done / 3 * 4;
    }
#endif
    for (; i < end; i += 3, dst += 4) {
      std::uint32_t v = (src[i] << 16) | (src[i + 1] << 8) | src[i + 2];
      std::memcpy(dst, &kPairs[2 * (v >> 12)], 2);
      std::memcpy(dst + 2, &kPairs[2 * (v & 4095)], 2);
    }
    out_.append(chunk, dst);
  }
  if (i < n) {
    std::uint32_t v = src[i] << 16 | (i + 1 < n ? src[i + 1] << 8 : 0);
    char tail[4] = {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], i + 1 < n ? kAlphabet[(v >> 6) & 63] : '=',
                    '='};
    out_.append(tail, 4);
  }
}

JsonWriter& JsonWriter::number(std::int64_t value) {
  separate();
  char buffer[24];
  auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  out_.append(buffer, end);
  return *this;
}

JsonWriter& JsonWriter::number(std::uint64_t value) {
  separate();
  char buffer[24];
  auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  out_.append(buffer, end);
  return *this;
}

JsonWriter& JsonWriter::number(double value) {
  // Parsed JSON never holds NaN or infinity; null keeps the output valid JSON anyway.
  if (!std::isfinite(value)) return null();
  separate();
  char buffer[32];
  auto end = shortestChars(buffer, buffer + sizeof buffer, value).ptr;
  out_.append(buffer, end);
  if (std::string_view(buffer, end - buffer).find_first_of(".e") == std::string_view::npos) out_ += ".0";
  return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
  separate();
  out_ += value ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  out_ += "null";
  return *this;
}

JsonWriter& JsonWriter::value(simdjson::dom::element element) {
  using Type = simdjson::dom::element_type;
  switch (element.type()) {
    case Type::OBJECT:
      beginObject();
      for (auto field : simdjson::dom::object(element)) {
        key(field.key);
        value(field.value);
      }
      return endObject();
    case Type::ARRAY:
      beginArray();
      for (auto item : simdjson::dom::array(element)) value(item);
      return endArray();
    case Type::STRING:
      return string(std::string_view(element));
    case Type::INT64:
      return number(std::int64_t(element));
    case Type::UINT64:
      return number(std::uint64_t(element));
    case Type::DOUBLE:
      return number(double(element));
    case Type::BOOL:
      return boolean(bool(element));
    case Type::NULL_VALUE:
      break;
  }
  return null();
}

JsonWriter& JsonWriter::raw(std::string_view json) {
  separate();
  out_ += json;
  return *this;
}

void JsonWriter::quoted(std::string_view text) {
  escaped(text, true);
}

void JsonWriter::escaped(std::string_view text, bool quotes) {
  // Keys and short values are mostly plain: copied at once, without sizing.
  if (text.size() <= 24) {
    unsigned char escapes = 0;
    for (char c : text) escapes |= kEscapes.extra[static_cast<unsigned char>(c)];
    if (!escapes) {
      std::size_t at = out_.size();
      out_.resize(at + text.size() + 2 * quotes);
      char* o = out_.data() + at;
      if (quotes) *o++ = '"';
      std::memcpy(o, text.data(), text.size());
      if (quotes) o[text.size()] = '"';
      return;
    }
  }
  // Sized exactly, then written through a pointer: an editor document is JSON text
  // itself, with a quote every few bytes, so escapes are found a word at a time and
  // everything is stored eight bytes at a time, each store overwritten by the next
  // (hence eight bytes of room past the end while writing).
  const char* end = text.data() + text.size();
  std::size_t size = text.size();
  const char* p = text.data();
  for (; end - p >= 8; p += 8) {
    std::uint64_t w = load(p);
    size += byteCount(escapeMask(w));
    for (std::uint64_t control = controlMask(w); control; control &= control - 1)
      size += kEscapes.extra[static_cast<unsigned char>(p[byteIndex(control)])] - 1;
  }
  for (; p < end; ++p) size += kEscapes.extra[static_cast<unsigned char>(*p)];

  if (quotes) size += 2;
  std::size_t at = out_.size();
  if (size > kSlack) grow(size);  // the rest of the message goes in without a copy
  out_.resize(at + size + 8);
  char* o = out_.data() + at;
  if (quotes) *o++ = '"';
  auto escape = [&o](unsigned char c) {
    store(o, kEscapes.text[c]);
    o += kEscapes.extra[c] + 1;
  };
  for (p = text.data(); end - p >= 8; p += 8) {
    std::uint64_t w = load(p);
    int from = 0;
    for (std::uint64_t mask = escapeMask(w); mask; mask &= mask - 1) {
      int i = byteIndex(mask);
      store(o, w >> 8 * from);
      o += i - from;
      escape(static_cast<unsigned char>(p[i]));
      from = i + 1;
    }
    if (from < 8) {
      store(o, w >> 8 * from);
      o += 8 - from;
    }
  }
  for (; p < end; ++p) {
    auto c = static_cast<unsigned char>(*p);
    if (kEscapes.extra[c]) {
      escape(c);
    } else {
      *o++ = static_cast<char>(c);
    }
  }
  if (quotes) *o = '"';
  out_.resize(at + size);
}

std::string_view decodeUtf8(std::string_view bytes, std::string& scratch) {
  if (simdjson::validate_utf8(bytes.data(), bytes.size())) return bytes;
  scratch.clear();
  scratch.reserve(bytes.size() + bytes.size() / 2);
  for (std::size_t i = 0; i < bytes.size();) {
    std::size_t bad = 0;
    std::size_t length = sequenceLength(bytes, i, bad);
    if (length == 0) {
      scratch += "\xEF\xBF\xBD";
      i += bad;
    } else {
      scratch.append(bytes, i, length);
      i += length;
    }
  }
  return scratch;
}

std::string_view trimWhitespace(std::string_view text) {
  std::size_t begin = 0, end = text.size();
  while (begin < end) {
    std::size_t bad = 0;
    std::size_t length = sequenceLength(text, begin, bad);
    if (length == 0 || !isWhitespace(codePoint(text, begin, length))) break;
    begin += length;
  }
  while (end > begin) {
    std::size_t start = end - 1;
    while (start > begin && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
    std::size_t bad = 0;
    std::size_t length = sequenceLength(text, start, bad);
    if (length != end - start || !isWhitespace(codePoint(text, start, length))) break;
    end = start;
  }
  return text.substr(begin, end - begin);
}

}  // namespace tondrel
