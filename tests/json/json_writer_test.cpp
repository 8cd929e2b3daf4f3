#include "json_writer.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>

#include "utf8.hpp"

using namespace tondrel;
namespace dom = simdjson::dom;

namespace {

std::string write(const std::function<void(JsonWriter&)>& build) {
  Buffer out;
  JsonWriter writer(out);
  build(writer);
  return std::string(out.view());
}

}  // namespace

TEST(JsonWriter, WritesExactBytes) {
  struct Case {
    std::string input, expected;
  } cases[] = {
      {R"("a\/b")", R"("a/b")"},
      {R"("\u0001\u001F\u0000")", R"("\u0001\u001f\u0000")"},
      {R"("\b\f\n\r\t\"\\")", R"("\b\f\n\r\t\"\\")"},
      {"\"\x7f\"", "\"\x7f\""},
      // every escape, in eight-byte words and in the tail
      {R"("\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007\u0008\u0009\u000A\u000B\u000C\u000D\u000E\u000F\u0010\u0011\u0012\u0013\u0014\u0015\u0016\u0017\u0018\u0019\u001A\u001B\u001C\u001D\u001E\u001F\"\\")",
       R"("\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007\b\t\n\u000b\f\r\u000e\u000f\u0010\u0011\u0012\u0013\u0014\u0015\u0016\u0017\u0018\u0019\u001a\u001b\u001c\u001d\u001e\u001f\"\\")"},
      {R"("\u00e9\ud83d\ude00")", "\"é😀\""},
      {R"("0123456789abcdef\n0123456\u00017")", R"("0123456789abcdef\n0123456\u00017")"},
      {"2.0", "2.0"},
      {"-0.0", "-0.0"},
      {"0.15", "0.15"},
      {"1E2", "100.0"},
      {"1e21", "1e+21"},
      {"5e-324", "5e-324"},
      {"0.30000000000000004", "0.30000000000000004"},
      {"123456789012345680000.0", "123456789012345683968.0"},
      {"18446744073709551615", "18446744073709551615"},
      {"-9223372036854775808", "-9223372036854775808"},
      {R"( { "b" : 1 , "a" : [ true , false , null ] } )", R"({"b":1,"a":[true,false,null]})"},
      {R"([{},[],{"a":{}},[[]]])", R"([{},[],{"a":{}},[[]]])"},
      {R"({"k":1,"k":2})", R"({"k":1,"k":2})"},
  };
  dom::parser parser;
  for (const Case& c : cases) {
    dom::element parsed;
    ASSERT_EQ(parser.parse(c.input).get(parsed), simdjson::SUCCESS) << c.input;
    EXPECT_EQ(write([&](JsonWriter& w) { w.value(parsed); }), c.expected) << c.input;
  }
  EXPECT_EQ(write([](JsonWriter& w) {
              w.beginObject().member("s", "a\"b").member("v", std::string_view("x\0y", 3)).member("t", true);
              w.member("i", -5).member("l", std::int64_t{1} << 40).key("u").number(UINT64_MAX);
              w.key("d").number(0.5).key("n").number(std::nan("")).key("a").beginArray().null();
              w.beginObject().endObject().raw("[1]").lossyString("\xff").endArray();
              w.endObject();
            }),
            R"({"s":"a\"b","v":"x\u0000y","t":true,"i":-5,"l":1099511627776,"u":18446744073709551615,)"
            R"("d":0.5,"n":null,"a":[null,{},[1],")"
            "\xEF\xBF\xBD\"]}");
}

TEST(Utf8, RepairsEachMaximalInvalidSubpartWithOneReplacement) {
  const std::string r = "\xEF\xBF\xBD";
  struct Case {
    std::string input, expected;
  } cases[] = {
      {"", ""},
      {"plain é € 😀 \x7f", "plain é € 😀 \x7f"},
      {"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF", "\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF"},
      {"\x80", r},
      {"\xC0\x80", r + r},
      {"\xC2", r},
      {"\xC2z", r + "z"},
      {"\xE0\x80\x80", r + r + r},
      {"\xE0\xA0", r},
      {"\xED\xA0\x80", r + r + r},
      {"a\xF0\x9F\x98z", "a" + r + "z"},
      {"\xF0\x9F\x98\xF0\x9F\x98\x80", r + "😀"},
      {"\xF0\x80\x80\x80", r + r + r + r},
      {"\xF4\x90\x80\x80", r + r + r + r},
      {"\xF5\x80", r + r},
      {"a\xF1\x80\x80\xE1\x80\xC2g\x80h\x80\xBFi", "a" + r + r + r + "g" + r + "h" + r + r + "i"},
      {std::string(70, 'x') + "\xFFy", std::string(70, 'x') + r + "y"},
  };
  for (const Case& c : cases) {
    std::string scratch;
    EXPECT_EQ(decodeUtf8(c.input, scratch), c.expected) << c.input;
    EXPECT_EQ(write([&](JsonWriter& w) { w.lossyString(c.input); }), "\"" + c.expected + "\"") << c.input;
  }
  std::string valid = "already valid", scratch;
  EXPECT_EQ(decodeUtf8(valid, scratch).data(), valid.data()) << "valid text is returned, not copied";
}

TEST(TrimWhitespace, StripsUnicodeWhitespaceFromBothEnds) {
  std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {" \t\n\v\f\rhello  world\r\n ", "hello  world"},
      {"\u00A0x\u00A0", "x"},
      {"\u2028x\u2029", "x"},
      {"\u0085x\u0085", "x"},
      {"\u1680\u2000\u200A\u202F\u205Fx\u205F\u202F\u200A\u2000\u1680", "x"},
      {" \u3000\u00A0\t\u0085", ""},
      {"\u200Bx\u200B", "\u200Bx\u200B"},
      {"\u180Ex\u180E", "\u180Ex\u180E"},
      {"\u0120x\u0145\u4E00", "\u0120x\u0145\u4E00"},
      {" 😀\u3000é ", "😀\u3000é"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(trimWhitespace(input), expected) << input;
}

// The pieces of an answer may split its groups of three bytes anywhere: the
// carried bytes join the next piece, and the last one or two are padded.
TEST(JsonWriter, WritesBase64TheSameWhereverThePiecesSplit) {
  auto encoded = [](std::string_view bytes, std::size_t piece) {
    return write([&](JsonWriter& w) {
      std::string carry;
      w.beginString();
      for (std::size_t at = 0; at < bytes.size(); at += piece) w.base64Piece(bytes.substr(at, piece), carry);
      w.endBase64String(carry);
    });
  };
  EXPECT_EQ(encoded("", 1), R"("")");
  EXPECT_EQ(encoded("f", 1), R"("Zg==")");
  EXPECT_EQ(encoded("fo", 1), R"("Zm8=")");
  EXPECT_EQ(encoded("foobar", 4), R"("Zm9vYmFy")");
  std::mt19937 rng(5);
  std::string bytes(5000, '\0');
  for (char& c : bytes) c = static_cast<char>(rng());
  for (std::size_t size : {1, 2, 3, 100, 4097, 5000})
    for (std::size_t piece : {1, 2, 4, 3072})
      ASSERT_EQ(encoded(std::string_view(bytes).substr(0, size), piece), encoded(bytes.substr(0, size), size))
          << size << " in pieces of " << piece;
}
