// Writes whatever simdjson accepts back out with JsonWriter and checks that
// nothing changed: kinds, numbers to the bit, strings, member order, and bytes
// on a second pass. Also checks that any bytes at all become one valid string,
// and that the compact rewrite of forwarded text, and the split of a line around
// it, agree byte for byte with parsing and writing.
#include <simdjson.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "compact_json.hpp"
#include "forwarded.hpp"
#include "json_writer.hpp"
#include "utf8.hpp"

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
    case Type::STRING:
      return std::string_view(a) == std::string_view(b);
    case Type::INT64:
      return std::int64_t(a) == std::int64_t(b);
    case Type::UINT64:
      return std::uint64_t(a) == std::uint64_t(b);
    case Type::DOUBLE:
      return std::bit_cast<std::uint64_t>(double(a)) == std::bit_cast<std::uint64_t>(double(b));
    case Type::BOOL:
      return bool(a) == bool(b);
    case Type::NULL_VALUE:
      return true;
  }
  return false;
}

// What the writer writes of a parsed value.
std::string writtenAsJson(element value) {
  tondrel::Buffer out;
  tondrel::JsonWriter(out).value(value);
  return std::string(out.view());
}

void check(bool ok, const char* what, const std::string& written) {
  if (ok) return;
  std::fprintf(stderr, "invariant broken: %s\nwritten: %s\n", what, written.c_str());
  std::abort();
}

// A split line parses when the whole line does, to the same values, the
// forwarded member apart, whose text is what the writer makes of the original.
void checkSplit(std::string_view line) {
  static simdjson::dom::parser whole, rest;
  auto split = tondrel::splitForwarded(line);
  if (!split) return;
  element original, reduced;
  bool parsed = whole.parse(line.data(), line.size()).get(original) == simdjson::SUCCESS;
  bool reducedParsed = rest.parse(split->line).get(reduced) == simdjson::SUCCESS;
  check(parsed == reducedParsed, "the rest parses exactly when the line does", split->line);
  if (!parsed) return;
  element params, arguments, value, standIn;
  check(original["params"].get(params) == simdjson::SUCCESS &&
            params["arguments"].get(arguments) == simdjson::SUCCESS &&
            arguments[split->key].get(value) == simdjson::SUCCESS,
        "the forwarded member is where the parser finds it", split->line);
  std::string written = writtenAsJson(value);
  check(written == split->json(), "the forwarded text is what the writer writes",
        std::string(split->json()) + "\n" + written);
  check(reduced["params"]["arguments"][split->key].get(standIn) == simdjson::SUCCESS &&
            standIn.type() == value.type(),
        "the stand-in has the forwarded value's kind", split->line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static simdjson::dom::parser input, first, second;
  std::string_view bytes(reinterpret_cast<const char*>(data), size);

  element original;
  if (input.parse(bytes.data(), bytes.size()).get(original) == simdjson::SUCCESS) {
    std::string once = writtenAsJson(original);
    element reread;
    check(first.parse(once).get(reread) == simdjson::SUCCESS, "the output parses", once);
    check(same(original, reread), "the output reads as the same value", once);
    std::string twice = writtenAsJson(reread);
    check(once == twice, "writing again gives the same bytes", once + "\n" + twice);
  }

  // The fast path may refuse what the parser takes, never take what it refuses
  // nor write other bytes.
  // (The server repairs a line to valid UTF-8 before either reads it.)
  bool utf8 = simdjson::validate_utf8(bytes.data(), bytes.size());
  tondrel::Buffer compacted;
  std::optional<std::string_view> as;
  const char* end = utf8 ? tondrel::compactPrefix(bytes, compacted, as) : nullptr;
  if (end && std::string_view(end, bytes.data() + bytes.size() - end).find_first_not_of(" \t\r\n") ==
                 std::string_view::npos) {
    std::string compact(as ? *as : compacted.view()), written;
    if (input.parse(bytes.data(), bytes.size()).get(original) == simdjson::SUCCESS)
      written = writtenAsJson(original);
    check(compact == written, "the compact rewrite writes what the writer writes", compact + "\n" + written);
  }
  if (utf8) checkSplit(bytes);

  tondrel::Buffer repaired;
  tondrel::JsonWriter(repaired).lossyString(bytes);
  std::string lossy(repaired.view());
  std::string_view text;
  check(second.parse(lossy).get(text) == simdjson::SUCCESS, "lossyString gives one JSON string", lossy);
  check(!utf8 || text == bytes, "valid UTF-8 comes through unchanged", lossy);
  // Trimming repaired text must cut on character boundaries only.
  std::string_view trimmed = tondrel::trimWhitespace(text);
  check(simdjson::validate_utf8(trimmed.data(), trimmed.size()), "trimming keeps valid UTF-8", lossy);
  return 0;
}
