#include "json.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

namespace tondrel {
namespace {

// Room kept after a long string for a few escapes and the rest of the message.
constexpr std::size_t kSlack = 4096;
constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kHighs = 0x8080808080808080ULL;

// True when any of the eight bytes is a control character, '"' or '\\'.
bool needsEscape(std::uint64_t w) {
  auto hasZero = [](std::uint64_t x) { return (x - kOnes) & ~x & kHighs; };
  std::uint64_t control = (w - 0x20 * kOnes) & ~w & kHighs;
  return (control | hasZero(w ^ ('"' * kOnes)) | hasZero(w ^ ('\\' * kOnes))) != 0;
}

bool isPlain(unsigned char c) { return c >= 0x20 && c != '"' && c != '\\'; }

void appendEscaped(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  switch (c) {
    case '"': out += "\\\""; return;
    case '\\': out += "\\\\"; return;
    case '\b': out += "\\b"; return;
    case '\f': out += "\\f"; return;
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    default:
      out += "\\u00";
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0xF]);
  }
}

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
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  // Two characters per 12 bits: half the lookups of one per 6 bits.
  static const auto kPairs = [] {
    std::array<char, 2 * 4096> pairs{};
    for (int i = 0; i < 4096; ++i) pairs[2 * i] = kAlphabet[i >> 6], pairs[2 * i + 1] = kAlphabet[i & 63];
    return pairs;
  }();
  separate();
  // Room for the whole encoding and what usually follows it, so the buffer never
  // grows (and copies) mid-way; chunks through a small buffer spare a zero-fill.
  out_.reserve(out_.size() + (bytes.size() + 2) / 3 * 4 + kSlack);
  out_.push_back('"');
  auto src = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t n = bytes.size(), i = 0;
  char chunk[4096];
  while (i + 3 <= n) {
    char* dst = chunk;
    for (std::size_t end = std::min(n - n % 3, i + sizeof chunk / 4 * 3); i < end; i += 3, dst += 4) {
      std::uint32_t v = (src[i] << 16) | (src[i + 1] << 8) | src[i + 2];
      std::memcpy(dst, &kPairs[2 * (v >> 12)], 2);
      std::memcpy(dst + 2, &kPairs[2 * (v & 4095)], 2);
    }
    out_.append(chunk, dst);
  }
  if (i < n) {
    std::uint32_t v = src[i] << 16 | (i + 1 < n ? src[i + 1] << 8 : 0);
    char tail[4] = {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], i + 1 < n ? kAlphabet[(v >> 6) & 63] : '=', '='};
    out_.append(tail, 4);
  }
  out_.push_back('"');
  return *this;
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
  auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
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
    case Type::STRING: return string(std::string_view(element));
    case Type::INT64: return number(std::int64_t(element));
    case Type::UINT64: return number(std::uint64_t(element));
    case Type::DOUBLE: return number(double(element));
    case Type::BOOL: return boolean(bool(element));
    case Type::NULL_VALUE: break;
  }
  return null();
}

JsonWriter& JsonWriter::raw(std::string_view json) {
  separate();
  out_ += json;
  return *this;
}

void JsonWriter::quoted(std::string_view text) {
  // Escape-free runs are copied whole; large editor answers are mostly such runs.
  if (text.size() > kSlack) out_.reserve(out_.size() + text.size() + text.size() / 16 + kSlack);
  out_.push_back('"');
  const char* p = text.data();
  const char* end = p + text.size();
  const char* run = p;
  while (p < end) {
    if (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      if (!needsEscape(word)) {
        p += 8;
        continue;
      }
    }
    auto c = static_cast<unsigned char>(*p);
    if (isPlain(c)) {
      ++p;
      continue;
    }
    out_.append(run, p);
    appendEscaped(out_, c);
    run = ++p;
  }
  out_.append(run, end);
  out_.push_back('"');
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
