// Writes whatever simdjson accepts back out with JsonWriter and checks that
// nothing changed: kinds, numbers to the bit, strings, member order, and bytes
// on a second pass. Also checks that any bytes at all become one valid string.
#include <simdjson.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "json.hpp"

namespace {

using simdjson::dom::element;
using Type = simdjson::dom::element_type;

bool same(element a, element b) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Type::OBJECT: {
      simdjson::dom::object x(a), y(b);
      auto i = x.begin(), j = y.begin();
      for (; i != x.end() && j != y.end(); ++i, ++j)
        if (i.key() != j.key() || !same(i.value(), j.value())) return false;
      return i == x.end() && j == y.end();
    }
    case Type::ARRAY: {
      simdjson::dom::array x(a), y(b);
      auto i = x.begin(), j = y.begin();
      for (; i != x.end() && j != y.end(); ++i, ++j)
        if (!same(*i, *j)) return false;
      return i == x.end() && j == y.end();
    }
    case Type::STRING: return std::string_view(a) == std::string_view(b);
    case Type::INT64: return std::int64_t(a) == std::int64_t(b);
    case Type::UINT64: return std::uint64_t(a) == std::uint64_t(b);
    case Type::DOUBLE: return std::bit_cast<std::uint64_t>(double(a)) == std::bit_cast<std::uint64_t>(double(b));
    case Type::BOOL: return bool(a) == bool(b);
    case Type::NULL_VALUE: return true;
  }
  return false;
}

void check(bool ok, const char* what, const std::string& written) {
  if (ok) return;
  std::fprintf(stderr, "invariant broken: %s\nwritten: %s\n", what, written.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static simdjson::dom::parser input, first, second;
  std::string_view bytes(reinterpret_cast<const char*>(data), size);

  element original;
  if (input.parse(bytes.data(), bytes.size()).get(original) == simdjson::SUCCESS) {
    std::string once, twice;
    tondrel::JsonWriter(once).value(original);
    element reread;
    check(first.parse(once).get(reread) == simdjson::SUCCESS, "the output parses", once);
    check(same(original, reread), "the output reads as the same value", once);
    tondrel::JsonWriter(twice).value(reread);
    check(once == twice, "writing again gives the same bytes", once + "\n" + twice);
  }

  std::string lossy;
  tondrel::JsonWriter(lossy).lossyString(bytes);
  std::string_view text;
  check(second.parse(lossy).get(text) == simdjson::SUCCESS, "lossyString gives one JSON string", lossy);
  bool valid = simdjson::validate_utf8(bytes.data(), bytes.size());
  check(!valid || text == bytes, "valid UTF-8 comes through unchanged", lossy);
  // Trimming repaired text must cut on character boundaries only.
  std::string_view trimmed = tondrel::trimWhitespace(text);
  check(simdjson::validate_utf8(trimmed.data(), trimmed.size()), "trimming keeps valid UTF-8", lossy);
  return 0;
}
