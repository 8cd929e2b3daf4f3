#include "utf8.hpp"

#include <simdjson.h>

namespace tondrel {
namespace {

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

std::size_t appendRepaired(std::string_view s, std::size_t i, std::string& out) {
  std::size_t bad = 0, length = sequenceLength(s, i, bad);
  if (length == 0) {
    out += kReplacement;
    return bad;
  }
  out.append(s, i, length);
  return length;
}

std::string_view decodeUtf8(std::string_view bytes, std::string& scratch) {
  if (simdjson::validate_utf8(bytes.data(), bytes.size())) return bytes;
  scratch.clear();
  scratch.reserve(bytes.size() + bytes.size() / 2);
  for (std::size_t i = 0; i < bytes.size();) i += appendRepaired(bytes, i, scratch);
  return scratch;
}

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += char(cp);
  } else if (cp < 0x800) {
    out += char(0xC0 | cp >> 6);
    out += char(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += char(0xE0 | cp >> 12);
    out += char(0x80 | (cp >> 6 & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  } else {
    out += char(0xF0 | cp >> 18);
    out += char(0x80 | (cp >> 12 & 0x3F));
    out += char(0x80 | (cp >> 6 & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  }
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
