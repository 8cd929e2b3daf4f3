#include "forwarded.hpp"

#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "json.hpp"

namespace tondrel {
namespace {

// Deeper nesting is left to the parser, which knows its own limit exactly.
constexpr std::size_t kMaxDepth = 512;

struct Cursor {
  const char* p;
  const char* end;

  char peek() const { return p < end ? *p : '\0'; }  // NUL is never valid outside a string
  void blanks() {
    if (p != end && static_cast<unsigned char>(*p) > ' ') return;  // compact text has none
    while (p < end && (*p == ' ' || *p == '\n' || *p == '\r' || *p == '\t')) ++p;
  }
  bool eat(char c) {
    if (peek() != c) return false;
    ++p;
    return true;
  }
};

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

// Bytes that end a plain run inside a string: the quote, the backslash, controls.
constexpr auto kStops = [] {
  std::array<bool, 256> stops{};
  for (int c = 0; c < 0x20; ++c) stops[c] = true;
  stops['"'] = stops['\\'] = true;
  return stops;
}();

// The high bit of each byte of a word (first byte lowest) that ends a plain run.
std::uint64_t stopMask(std::uint64_t w) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL;
  auto equal = [w](unsigned char c) {
    std::uint64_t x = w ^ (c * kOnes);
    return ~(((x & ~kHighs) + ~kHighs) | x) & kHighs;
  };
  return (~(((w & ~kHighs) + 0x60 * kOnes) | w) & kHighs) | equal('"') | equal('\\');
}

// Where the run of bytes a string holds as they stand ends, eight at a time.
const char* plainRun(const char* p, const char* end) {
  static_assert(std::endian::native == std::endian::little);
  for (; end - p >= 8; p += 8) {
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    if (std::uint64_t mask = stopMask(word)) return p + (std::countr_zero(mask) >> 3);
  }
  while (p < end && !kStops[static_cast<unsigned char>(*p)]) ++p;
  return p;
}

// Most text arrives compact already, so a first pass only checks that the text
// is what the writer would write, writing nothing: the value is then sent from
// where it lies. Only when that fails does a second pass write it out.
template <bool kWrite>
class Compactor {
 public:
  explicit Compactor(std::string& out) : out_(out) {}

  // Where the value at c ends, or nullptr: when checking, for anything that would
  // not be written unchanged; when writing, for anything it does not handle.
  const char* run(Cursor c) {
    std::array<char, kMaxDepth> open;  // '{' or '[' for each level
    std::size_t depth = 0;
    if constexpr (kWrite) out_.reserve(out_.size() + (c.end - c.p) + (c.end - c.p) / 8);  // about
    blanks(c);
  value:
    switch (c.peek()) {
      case '{':
      case '[': {
        char opening = *c.p;
        keep(c.p, c.p + 1);
        ++c.p;
        blanks(c);
        if (c.peek() == (opening == '{' ? '}' : ']')) {
          keep(c.p, c.p + 1);
          ++c.p;
          goto next;
        }
        if (depth == kMaxDepth) return nullptr;
        open[depth++] = opening;
        if (opening == '{') goto member;
        goto value;
      }
      case '"':
        if (!string(c)) return nullptr;
        goto next;
      case 't':
        if (!literal(c, "true")) return nullptr;
        goto next;
      case 'f':
        if (!literal(c, "false")) return nullptr;
        goto next;
      case 'n':
        if (!literal(c, "null")) return nullptr;
        goto next;
      default:
        if (!number(c)) return nullptr;
        goto next;
    }
  member:
    if (c.peek() != '"' || !string(c)) return nullptr;
    blanks(c);
    if (c.peek() != ':') return nullptr;
    keep(c.p, c.p + 1);
    ++c.p;
    blanks(c);
    goto value;
  next:
    if (depth == 0) return c.p;
    blanks(c);
    if (c.peek() == ',') {
      keep(c.p, c.p + 1);
      ++c.p;
      blanks(c);
      if (open[depth - 1] == '{') goto member;
      goto value;
    }
    if (c.peek() == (open[depth - 1] == '{' ? '}' : ']')) {
      keep(c.p, c.p + 1);
      ++c.p;
      --depth;
      goto next;
    }
    return nullptr;
  }

 private:
  // Compact text has no blanks: when checking, one fails the check where it stands.
  static void blanks(Cursor& c) {
    if constexpr (kWrite) c.blanks();
  }
  // Text that is written as it stands.
  void keep(const char* from, const char* to) {
    if constexpr (kWrite) out_.append(from, static_cast<std::size_t>(to - from));
  }
  // What the writer writes for the text [from, to): when checking, it must be that text.
  bool put(const char* from, const char* to, std::string_view written) {
    if constexpr (kWrite) {
      out_ += written;
      return true;
    }
    return written == std::string_view(from, to - from);
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
    c.p = plainRun(c.p, c.end);
    if (c.p < c.end && *c.p == '"') [[likely]] {
      keep(start, ++c.p);
      return true;
    }
    return escapedString(c, start);
  }

  [[gnu::noinline]] bool escapedString(Cursor& c, const char* start) {
    if (c.p == c.end || static_cast<unsigned char>(*c.p) < 0x20) return false;
    decoded_.assign(start + 1, c.p);
    while (true) {
      char ch = c.peek();
      if (ch == '"') break;
      if (ch == '\\') {
        ++c.p;
        char escape = c.peek();
        ++c.p;
        switch (escape) {
          case '"':
            decoded_ += '"';
            break;
          case '\\':
            decoded_ += '\\';
            break;
          case '/':
            decoded_ += '/';
            break;
          case 'b':
            decoded_ += '\b';
            break;
          case 'f':
            decoded_ += '\f';
            break;
          case 'n':
            decoded_ += '\n';
            break;
          case 'r':
            decoded_ += '\r';
            break;
          case 't':
            decoded_ += '\t';
            break;
          case 'u': {
            char32_t unit;
            if (!hex4(c, unit)) return false;
            if (unit >= 0xDC00 && unit <= 0xDFFF) return false;
            if (unit >= 0xD800 && unit <= 0xDBFF) {
              char32_t low;
              if (c.end - c.p < 2 || c.p[0] != '\\' || c.p[1] != 'u') return false;
              c.p += 2;
              if (!hex4(c, low) || low < 0xDC00 || low > 0xDFFF) return false;
              unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            }
            appendUtf8(decoded_, unit);
            break;
          }
          default:
            return false;
        }
        continue;
      }
      if (c.p == c.end || static_cast<unsigned char>(ch) < 0x20) return false;
      const char* run = c.p;
      c.p = plainRun(c.p, c.end);
      decoded_.append(run, c.p);
    }
    ++c.p;
    written_.clear();
    JsonWriter(written_).string(decoded_);
    return put(start, c.p, written_);
  }

  bool number(Cursor& c) {
    const char* start = c.p;
    bool negative = c.eat('-');
    const char* integer = c.p;
    if (c.eat('0')) {
    } else if (isDigit(c.peek())) {
      while (isDigit(c.peek())) ++c.p;
    } else {
      return false;
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
    std::size_t integerDigits = integerEnd - integer;

    if (!fraction && !exponent) {
      // Up to 18 digits always fit a signed 64-bit integer, written as they stand
      // but for "-0", which reads as the integer 0.
      if (integerDigits <= 18) {
        if (negative && *integer == '0') return put(start, c.p, "0");
        keep(start, c.p);
        return true;
      }
      written_.clear();
      JsonWriter writer(written_);
      std::int64_t signedValue;
      std::uint64_t unsignedValue;
      if (auto [end, error] = std::from_chars(start, c.p, signedValue); error == std::errc() && end == c.p)
        writer.number(signedValue);
      else if (auto [end, error] = std::from_chars(start, c.p, unsignedValue);
               !negative && error == std::errc() && end == c.p)
        writer.number(unsignedValue);
      else
        return false;
      return put(start, c.p, written_);
    }
    if (!exponent && plainDouble(integer, integerEnd, fraction, fractionEnd)) {
      keep(start, c.p);
      return true;
    }
    // strtod rather than from_chars, which not every standard library has for
    // doubles; correctly rounded in the "C" locale the bridge never leaves. Numbers
    // it cannot give exactly (out of range, or below the normal range) go to the parser.
    char text[64];
    if (std::size_t(c.p - start) >= sizeof text) return false;
    std::memcpy(text, start, c.p - start);
    text[c.p - start] = '\0';
    errno = 0;
    char* end;
    double value = std::strtod(text, &end);
    if (errno != 0 || end != text + (c.p - start)) return false;
    written_.clear();
    JsonWriter(written_).number(value);
    return put(start, c.p, written_);
  }

  // Whether the writer writes the double of "I.F" as the same text: the shortest
  // text of a number of at most 15 significant digits is those digits, and
  // written plainly it is no longer than in exponent form.
  static bool plainDouble(const char* integer, const char* integerEnd, const char* fraction,
                          const char* fractionEnd) {
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

  std::string& out_;
  std::string decoded_, written_;
};

// Writes the value at c into out, or finds it written so already (out untouched,
// the value's text in unchanged); where it ends, or nullptr.
const char* compact(Cursor c, std::string& out, std::optional<std::string_view>* unchanged) {
  c.blanks();
  if (const char* end = Compactor<false>(out).run(c)) {
    if (unchanged) {
      *unchanged = std::string_view(c.p, end - c.p);
    } else {
      out.append(c.p, end);
    }
    return end;
  }
  std::size_t mark = out.size();
  if (const char* end = Compactor<true>(out).run(c)) return end;
  out.resize(mark);
  return nullptr;
}

bool isDelimiter(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == ',' || c == ':' || c == '"' || c == '{' ||
         c == '}' || c == '[' || c == ']';
}

// Moves past one value of valid JSON; on anything else, stops somewhere or
// fails. What it passes over is checked by the parser later.
bool skipValue(Cursor& c) {
  std::size_t depth = 0;
  do {
    c.blanks();
    char ch = c.peek();
    if (ch == '"') {
      for (++c.p; c.p < c.end && *c.p != '"'; ++c.p)
        if (*c.p == '\\') ++c.p;
      if (c.p >= c.end) return false;
      ++c.p;
    } else if (ch == '{' || ch == '[') {
      ++depth, ++c.p;
    } else if (ch == '}' || ch == ']' || ch == ',' || ch == ':') {
      if (depth == 0) return false;
      if (ch == '}' || ch == ']') --depth;
      ++c.p;
    } else if (ch == '\0') {
      return false;
    } else {
      while (c.p < c.end && !isDelimiter(*c.p)) ++c.p;
    }
  } while (depth > 0);
  return true;
}

// Where the values of the first members with the given keys begin in the object
// at c (nullptr when absent), read no further than the last of them; nothing when
// a key has an escape (it might read as one of them).
template <std::size_t N>
std::optional<std::array<const char*, N>> members(Cursor c, const std::array<std::string_view, N>& keys) {
  std::array<const char*, N> found{};
  std::size_t missing = N;
  c.blanks();
  if (!c.eat('{')) return std::nullopt;
  c.blanks();
  if (c.eat('}')) return found;
  do {
    c.blanks();
    if (!c.eat('"')) return std::nullopt;
    const char* key = c.p;
    while (c.p < c.end && *c.p != '"' && *c.p != '\\') ++c.p;
    if (c.peek() != '"') return std::nullopt;
    std::string_view name(key, c.p++ - key);
    c.blanks();
    if (!c.eat(':')) return std::nullopt;
    c.blanks();
    for (std::size_t i = 0; i < N; ++i)
      if (!found[i] && name == keys[i]) {
        found[i] = c.p;
        if (--missing == 0) return found;
      }
    if (!skipValue(c)) return std::nullopt;
    c.blanks();
  } while (c.eat(','));
  if (!c.eat('}')) return std::nullopt;
  return found;
}

Cursor cursor(std::string_view text) {
  return {text.data(), text.data() + text.size()};
}

}  // namespace

bool writeCompact(std::string_view text, std::string& out) {
  std::size_t mark = out.size();
  Cursor c = cursor(text);
  if (const char* end = compact(c, out, nullptr)) {
    c.p = end;
    c.blanks();
    if (c.p == c.end) return true;
  }
  out.resize(mark);
  return false;
}

std::optional<ForwardedLine> splitForwarded(std::string_view line) {
  auto root = members<1>(cursor(line), {"params"});
  if (!root || !(*root)[0]) return std::nullopt;
  Cursor params{(*root)[0], line.data() + line.size()};
  auto fields = members<2>(params, {"name", "arguments"});
  if (!fields || !(*fields)[0] || !(*fields)[1]) return std::nullopt;
  std::string_view tool((*fields)[0], line.data() + line.size() - (*fields)[0]);
  ForwardedLine split;
  char kind;
  if (tool.starts_with("\"tondrel_replace_document\"")) {
    split.key = "document", kind = '{';
  } else if (tool.starts_with("\"tondrel_edit\"")) {
    split.key = "ops", kind = '[';
  } else {
    return std::nullopt;
  }
  auto arguments = members<1>({(*fields)[1], line.data() + line.size()}, {split.key});
  const char* end = line.data() + line.size();
  if (!arguments || !(*arguments)[0] || (*arguments)[0] == end || *(*arguments)[0] != kind)
    return std::nullopt;
  const char* value = (*arguments)[0];
  std::size_t before = value - line.data();
  end = compact({value, end}, split.written, &split.as);
  if (!end) return std::nullopt;
  split.line.reserve(line.size() - (end - value) + 2 + simdjson::SIMDJSON_PADDING);
  split.line.append(line.substr(0, before))
      .append(kind == '{' ? "{}" : "[]")
      .append(line.substr(end - line.data()));
  return split;
}

}  // namespace tondrel
