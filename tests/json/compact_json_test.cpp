// The compactor writes exactly what the writer writes from the parsed value, or
// leaves the text to the parser.
#include "compact_json.hpp"

#include <gtest/gtest.h>
#include <simdjson.h>

#include <optional>
#include <string>

#include "json_writer.hpp"

namespace tondrel {
namespace {

// What the writer makes of text simdjson parses; nothing when it does not parse.
std::optional<std::string> throughTheParser(std::string_view text) {
  static simdjson::dom::parser parser;
  simdjson::dom::element value;
  if (parser.parse(std::string(text)).get(value) != simdjson::SUCCESS) return std::nullopt;
  Buffer out;
  JsonWriter(out).value(value);
  return std::string(out.view());
}

// The compact form of text that holds one value and blanks; nothing when refused.
std::optional<std::string> compact(std::string_view text) {
  Buffer out;
  out += "kept";
  std::optional<std::string_view> as;
  const char* end = compactPrefix(text, out, as);
  if (!end || std::string_view(end, text.data() + text.size() - end).find_first_not_of(" \t\r\n") !=
                  std::string_view::npos) {
    if (!end) {
      EXPECT_EQ(out.view(), "kept") << text;
    }
    return std::nullopt;
  }
  return std::string(as ? *as : out.view().substr(4));
}

TEST(WriteCompact, WritesWhatTheWriterWritesFromTheParsedValue) {
  const char* const cases[] = {
      R"( { "b" : 1 , "a" : [ true , false , null ] } )",
      R"([{},[],{"a":{}},[[]]])",
      R"({"k":1,"k":2})",
      R"("a\/b\u00e9\ud83d\ude00\u0001\u001F\u0000\b\f\n\r\t\"\\")",
      "\"\x7f caf\xC3\xA9\"",
      "-0",  // alone, and as the integer 0 it reads as
      // Numbers by family, around each bound where the written form changes.
      "[0,7,-12,123456789012345678,1234567890123456789,-9223372036854775808,18446744073709551615]",
      "[2.0,-0.0,0.0,1.0,120.0,10000.0,100000.0,1000000.0,12340000.0]",
      "[0.15,1.50,0.1,0.01,0.001,0.0001,0.00012,0.000012,-3.25,123456789012345.6,1234567890.123456]",
      "[1.0000000000000001,0.12345678901234567,2.0000000000000003]",  // more digits than a double keeps
      "[0.1000000000000000055511151231257827,1E2,1e21,1e-7,2.2250738585072014e-308,1.7976931348623157e308]",
      "[-1e0,1e0,0e0,-0e-0]",
  };
  for (const char* text : cases) {
    auto expected = throughTheParser(text);
    ASSERT_TRUE(expected) << text;
    EXPECT_EQ(compact(text), expected) << text;
  }
}

// Refused either way: invalid text, and what the parser alone decides exactly.
TEST(WriteCompact, LeavesToTheParserWhatItDoesNotHandleTheSame) {
  const std::string cases[] = {
      "",
      "[1,]",
      R"({"a":1,})",
      "truex",
      "01",
      "1.",
      ".5",
      "[1]x",
      "[",
      "\"abc",
      "\"a\x01\"",
      "\"\\x\"",
      "\"\\u12\"",
      "\"\\ud800\"",
      "\"\\udc00\"",
      "18446744073709551616",
      "-9223372036854775809",
      "1e400",
      "1e-400",
      "5e-324",
      std::string(70, '1') + ".5",
      std::string(600, '[') + std::string(600, ']'),
      std::string("[1,\0]", 5),
  };
  for (const std::string& text : cases) EXPECT_EQ(compact(text), std::nullopt) << text;
}

}  // namespace
}  // namespace tondrel
