#include "forwarded.hpp"

#include <array>
#include <charconv>
#include <cstdint>
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

// Most text arrives compact already: while what would be written is the text
// itself, nothing is written, and the value can be sent from where it lies.
class Compactor {
 public:
  explicit Compactor(std::string& out) : out_(out) {}

  // Writes the value at c (or finds it unchanged); where it ends, or nullptr.
  const char* run(Cursor c) {
    std::array<char, kMaxDepth> open;  // '{' or '[' for each level
    std::size_t depth = 0;
    c.blanks();
    same_ = upTo_ = c.p;
    end_ = c.end;
  value:
    switch (c.peek()) {
      case '{':
        keep(c.p, c.p + 1);
        ++c.p;
        c.blanks();
        if (c.peek() == '}') {
          keep(c.p, c.p + 1);
          ++c.p;
          goto next;
        }
        if (depth == kMaxDepth) return nullptr;
        open[depth++] = '{';
        goto member;
      case '[':
        keep(c.p, c.p + 1);
        ++c.p;
        c.blanks();
        if (c.peek() == ']') {
          keep(c.p, c.p + 1);
          ++c.p;
          goto next;
        }
        if (depth == kMaxDepth) return nullptr;
        open[depth++] = '[';
        goto value;
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
    c.blanks();
    if (c.peek() != ':') return nullptr;
    keep(c.p, c.p + 1);
    ++c.p;
    c.blanks();
    goto value;
  next:
    if (depth == 0) return c.p;
    c.blanks();
    if (c.peek() == ',') {
      keep(c.p, c.p + 1);
      ++c.p;
      c.blanks();
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

  // The value's text when nothing had to change in it, else nothing (it is in out).
  std::optional<std::string_view> unchanged() const {
    if (!same_) return std::nullopt;
    return std::string_view(same_, upTo_ - same_);
  }
  // Puts the value in out, whether or not it had to change.
  void writeOut() {
    if (!same_) return;
    out_.reserve(out_.size() + (end_ - same_) + (end_ - same_) / 8);  // what is left, about
    out_.append(same_, upTo_);
    same_ = nullptr;
  }

 private:
  // Text that is written as it stands.
  void keep(const char* from, const char* to) {
    if (same_ && from == upTo_) {
      upTo_ = to;
      return;
    }
    writeOut();
    out_.append(from, to);
  }
  // What the writer writes for the text [from, to), kept when it is that text.
  void put(const char* from, const char* to, std::string_view written) {
    if (written == std::string_view(from, to - from)) return keep(from, to);
    writeOut();
    out_ += written;
  }

  bool literal(Cursor& c, std::string_view word) {
    if (std::string_view(c.p, std::min<std::size_t>(c.end - c.p, word.size())) != word) return false;
    keep(c.p, c.p + word.size());
    c.p += word.size();
    return true;
  }

  // A string with no escape is copied as it stands, which is how the writer
  // writes it (the line is valid UTF-8 by now); one with escapes is decoded and
  // written by the writer itself.
  bool string(Cursor& c) {
    const char* start = c.p++;
    while (c.p < c.end && !kStops[static_cast<unsigned char>(*c.p)]) ++c.p;
    if (c.p == c.end || static_cast<unsigned char>(*c.p) < 0x20) return false;
    if (*c.p == '"') {
      keep(start, ++c.p);
      return true;
    }
    decoded_.assign(start + 1, c.p);
    while (true) {
      char ch = c.peek();
      if (ch == '"') break;
      if (ch == '\\') {
        ++c.p;
        char escape = c.peek();
        ++c.p;
        switch (escape) {
          case '"': decoded_ += '"'; break;
          case '\\': decoded_ += '\\'; break;
          case '/': decoded_ += '/'; break;
          case 'b': decoded_ += '\b'; break;
          case 'f': decoded_ += '\f'; break;
          case 'n': decoded_ += '\n'; break;
          case 'r': decoded_ += '\r'; break;
          case 't': decoded_ += '\t'; break;
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
          default: return false;
        }
        continue;
      }
      if (c.p == c.end || static_cast<unsigned char>(ch) < 0x20) return false;
      const char* run = c.p;
      while (c.p < c.end && !kStops[static_cast<unsigned char>(*c.p)]) ++c.p;
      decoded_.append(run, c.p);
    }
    ++c.p;
    written_.clear();
    JsonWriter(written_).string(decoded_);
    put(start, c.p, written_);
    return true;
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
    std::string_view token(start, c.p - start);
    std::size_t integerDigits = integerEnd - integer;

    if (!fraction && !exponent) {
      // Up to 18 digits always fit a signed 64-bit integer, written as it stands
      // but for "-0", which reads as the integer 0.
      if (integerDigits <= 18) {
        put(start, c.p, negative && *integer == '0' ? "0" : token);
        return true;
      }
      written_.clear();
      JsonWriter writer(written_);
      std::int64_t signedValue;
      if (auto [end, error] = std::from_chars(start, c.p, signedValue); error == std::errc() && end == c.p) {
        writer.number(signedValue);
        put(start, c.p, written_);
        return true;
      }
      std::uint64_t unsignedValue;
      if (auto [end, error] = std::from_chars(start, c.p, unsignedValue);
          !negative && error == std::errc() && end == c.p) {
        writer.number(unsignedValue);
        put(start, c.p, written_);
        return true;
      }
      return false;
    }
    if (!exponent && plainDouble(integer, integerEnd, fraction, fractionEnd)) {
      keep(start, c.p);
      return true;
    }
    double value;
    auto [end, error] = std::from_chars(start, c.p, value);
    if (error != std::errc() || end != c.p) return false;
    written_.clear();
    JsonWriter(written_).number(value);
    put(start, c.p, written_);
    return true;
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
  const char* same_ = nullptr;  // the text written so far is [same_, upTo_), when not yet in out
  const char* upTo_ = nullptr;
  const char* end_ = nullptr;
  std::string decoded_, written_;
};

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
  Compactor compactor(out);
  if (const char* end = compactor.run(c)) {
    c.p = end;
    c.blanks();
    if (c.p == c.end) {
      compactor.writeOut();
      return true;
    }
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
  if (!arguments || !(*arguments)[0] || *(*arguments)[0] != kind) return std::nullopt;
  const char* value = (*arguments)[0];
  std::size_t before = value - line.data();
  Compactor compactor(split.written);
  const char* end = compactor.run({value, line.data() + line.size()});
  if (!end) return std::nullopt;
  split.as = compactor.unchanged();
  split.line.reserve(line.size() - (end - value) + 2 + simdjson::SIMDJSON_PADDING);
  split.line.append(line.substr(0, before)).append(kind == '{' ? "{}" : "[]").append(line.substr(end - line.data()));
  return split;
}

}  // namespace tondrel
