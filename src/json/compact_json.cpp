#include "compact_json.hpp"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "json_writer.hpp"
#include "kernels.hpp"
#include "text_cursor.hpp"
#include "utf8.hpp"

namespace tondrel {
namespace {

// Deeper nesting is left to the parser, which knows its own limit exactly.
constexpr int kMaxDepth = 512;

using Cursor = TextCursor;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Four hex digits after "\u".
bool hex4(Cursor& c, char32_t& unit) {
  if (c.end - c.p < 4) return false;
  unit = 0;
  for (int i = 0; i < 4; ++i) {
    int digit = hexDigit(c.p[i]);
    if (digit < 0) return false;
    unit = unit << 4 | char32_t(digit);
  }
  c.p += 4;
  return true;
}

// What an escape after the backslash stands for; 0 for one that is not JSON's.
char shortEscape(char escape) {
  switch (escape) {
    case '"':
    case '\\':
    case '/':
      return escape;
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return 0;
  }
}

// Whether the writer writes the double of "I.F" as the same text: the shortest
// text of a number of at most 15 significant digits is those digits, and written
// plainly it is no longer than in exponent form.
bool plainDouble(const char* integer, const char* integerEnd, const char* fraction, const char* fractionEnd) {
  std::size_t integerDigits = integerEnd - integer, fractionDigits = fractionEnd - fraction;
  if (fractionDigits == 1 && *fraction == '0') {  // a whole number: "120.0" but never "1000000.0"
    std::size_t zeros = 0;
    while (zeros < integerDigits && integerEnd[-1 - std::ptrdiff_t(zeros)] == '0') ++zeros;
    return integerDigits <= 15 && (zeros == integerDigits || zeros <= 4);
  }
  if (fractionEnd[-1] == '0') return false;
  if (*integer != '0') return integerDigits + fractionDigits <= 15;
  std::size_t zeros = 0;  // "0.00x": plain up to two zeros after the point
  while (fraction + zeros < fractionEnd && fraction[zeros] == '0') ++zeros;
  return zeros <= 2 && fractionDigits - zeros <= 15;
}

// Most text arrives compact already, so a first pass only checks that the text is
// what the writer would write, writing nothing: the value is then sent from where
// it lies. Only when that fails does a second pass write it out. Each construct is
// read by its own function; each says whether it was read and, when checking,
// found written as the writer writes it.
template <bool kWrite>
class Compactor {
 public:
  explicit Compactor(Buffer& out) : out_(out) {}

  bool value(Cursor& c, int depth) {
    switch (c.peek()) {
      case '{':
        return container<'{', '}'>(c, depth);
      case '[':
        return container<'[', ']'>(c, depth);
      case '"':
        return string(c);
      case 't':
        return literal(c, "true");
      case 'f':
        return literal(c, "false");
      case 'n':
        return literal(c, "null");
      default:
        return number(c);
    }
  }

 private:
  // Compact text has no blanks: when checking, one fails the check where it stands.
  static void blanks(Cursor& c) {
    if constexpr (kWrite) c.blanks();
  }
  // Text that is written as it stands.
  void keep(const char* from, const char* to) {
    if constexpr (kWrite) out_.append({from, static_cast<std::size_t>(to - from)});
  }
  bool punctuation(Cursor& c, char mark) {
    if (c.peek() != mark) return false;
    keep(c.p, c.p + 1);
    ++c.p;
    return true;
  }
  // What the writer writes for the text [from, to): when checking, it must be that text.
  bool put(const char* from, const char* to, std::string_view written) {
    if constexpr (kWrite) {
      out_ += written;
      return true;
    }
    return written == std::string_view(from, to - from);
  }

  // An object's members or an array's items, between its brackets.
  template <char kOpen, char kClose>
  bool container(Cursor& c, int depth) {
    punctuation(c, kOpen);
    blanks(c);
    if (punctuation(c, kClose)) return true;
    if (depth == kMaxDepth) return false;
    do {
      blanks(c);
      if (kOpen == '{' && !member(c)) return false;
      if (!value(c, depth + 1)) return false;
      blanks(c);
    } while (punctuation(c, ','));
    return punctuation(c, kClose);
  }

  // A member's name and colon, up to its value.
  bool member(Cursor& c) {
    if (c.peek() != '"' || !string(c)) return false;
    blanks(c);
    if (!punctuation(c, ':')) return false;
    blanks(c);
    return true;
  }

  bool literal(Cursor& c, std::string_view word) {
    if (std::string_view(c.p, std::min<std::size_t>(c.end - c.p, word.size())) != word) return false;
    keep(c.p, c.p + word.size());
    c.p += word.size();
    return true;
  }

  // A string with no escape stands as the writer writes it (the line is valid
  // UTF-8 by now); one with escapes is decoded and written by the writer itself.
  bool string(Cursor& c) {
    const char* start = c.p++;
    c.p = findEscape_(c.p, c.end);
    if (c.p < c.end && *c.p == '"') [[likely]] {
      keep(start, ++c.p);
      return true;
    }
    return escapedString(c, start);
  }

  [[gnu::noinline]] bool escapedString(Cursor& c, const char* start) {
    decoded_.assign(start + 1, c.p);
    for (;;) {
      char ch = c.peek();
      if (ch == '"') break;
      if (c.p == c.end || static_cast<unsigned char>(ch) < 0x20) return false;
      if (ch != '\\') {
        const char* run = c.p;
        c.p = findEscape_(c.p, c.end);
        decoded_.append(run, c.p);
        continue;
      }
      ++c.p;
      char escape = c.peek();
      ++c.p;
      if (escape != 'u') {
        char decoded = shortEscape(escape);
        if (!decoded) return false;
        decoded_ += decoded;
        continue;
      }
      char32_t unit;
      if (!hex4(c, unit) || (unit >= 0xDC00 && unit <= 0xDFFF)) return false;
      if (unit >= 0xD800 && unit <= 0xDBFF) {
        char32_t low;
        if (c.end - c.p < 2 || c.p[0] != '\\' || c.p[1] != 'u') return false;
        c.p += 2;
        if (!hex4(c, low) || low < 0xDC00 || low > 0xDFFF) return false;
        unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
      }
      appendUtf8(decoded_, unit);
    }
    ++c.p;
    written_.clear();
    JsonWriter(written_).string(decoded_);
    return put(start, c.p, written_.view());
  }

  bool number(Cursor& c) {
    const char* start = c.p;
    bool negative = c.eat('-');
    const char* integer = c.p;
    if (!c.eat('0')) {
      if (!isDigit(c.peek())) return false;
      while (isDigit(c.peek())) ++c.p;
    }
    const char* integerEnd = c.p;
    const char* fraction = nullptr;
    if (c.eat('.')) {
      fraction = c.p;
      if (!isDigit(c.peek())) return false;
      while (isDigit(c.peek())) ++c.p;
    }
    const char* fractionEnd = c.p;
    bool exponent = false;
    if (c.peek() == 'e' || c.peek() == 'E') {
      exponent = true;
      ++c.p;
      if (c.peek() == '+' || c.peek() == '-') ++c.p;
      if (!isDigit(c.peek())) return false;
      while (isDigit(c.peek())) ++c.p;
    }
    if (!fraction && !exponent) return integerNumber(start, c.p, negative, integerEnd - integer);
    if (!exponent && plainDouble(integer, integerEnd, fraction, fractionEnd)) {
      keep(start, c.p);
      return true;
    }
    return doubleNumber(start, c.p);
  }

  bool integerNumber(const char* start, const char* end, bool negative, std::size_t digits) {
    // Up to 18 digits always fit a signed 64-bit integer, written as they stand
    // but for "-0", which reads as the integer 0.
    if (digits <= 18) {
      if (negative && start[1] == '0') return put(start, end, "0");
      keep(start, end);
      return true;
    }
    written_.clear();
    JsonWriter writer(written_);
    std::int64_t signedValue;
    std::uint64_t unsignedValue;
    if (auto [stop, error] = std::from_chars(start, end, signedValue); error == std::errc() && stop == end)
      writer.number(signedValue);
    else if (auto [stop, error] = std::from_chars(start, end, unsignedValue);
             !negative && error == std::errc() && stop == end)
      writer.number(unsignedValue);
    else
      return false;
    return put(start, end, written_.view());
  }

  // strtod rather than from_chars, which not every standard library has for
  // doubles; correctly rounded in the "C" locale the bridge never leaves. Numbers
  // it cannot give exactly (out of range, or below the normal range) go to the parser.
  bool doubleNumber(const char* start, const char* end) {
    char text[64];
    if (std::size_t(end - start) >= sizeof text) return false;
    std::memcpy(text, start, end - start);
    text[end - start] = '\0';
    errno = 0;
    char* stop;
    double value = std::strtod(text, &stop);
    if (errno != 0 || stop != text + (end - start)) return false;
    written_.clear();
    JsonWriter(written_).number(value);
    return put(start, end, written_.view());
  }

  Buffer& out_;
  std::string decoded_;
  Buffer written_;
  const decltype(kernels::Kernels::findEscape) findEscape_ = kernels::kernels().findEscape;
};

}  // namespace

const char* compactPrefix(std::string_view text, Buffer& out, std::optional<std::string_view>& as) {
  Cursor c{text.data(), text.data() + text.size()};
  c.blanks();
  Cursor check = c;
  if (Compactor<false>(out).value(check, 0)) {
    as = std::string_view(c.p, check.p - c.p);
    return check.p;
  }
  std::size_t mark = out.size();
  // About the size of the text: most of it is kept as it stands.
  out.reserve(out.size() + (c.end - c.p) + (c.end - c.p) / 8);
  if (Compactor<true>(out).value(c, 0)) return c.p;
  out.truncate(mark);
  return nullptr;
}

}  // namespace tondrel
