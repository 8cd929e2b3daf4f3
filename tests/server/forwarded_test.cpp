#include "forwarded.hpp"

#include <gtest/gtest.h>

#include <string>

namespace tondrel {
namespace {

std::string toolCall(std::string_view tool, std::string_view arguments) {
  return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":")" + std::string(tool) +
         R"(","arguments":)" + std::string(arguments) + "}}";
}

TEST(SplitForwarded, TakesOutTheFirstForwardedMemberOfTheFirstParams) {
  struct Case {
    std::string line;
    std::optional<std::string> key = std::nullopt, rest = std::nullopt, json = std::nullopt;
  } cases[] = {
      {toolCall("tondrel_replace_document", R"({"save":true,"document":{ "a" : [1.50] }})"), "document",
       toolCall("tondrel_replace_document", R"({"save":true,"document":{}})"), R"({"a":[1.5]})"},
      {toolCall("tondrel_edit", R"({"ops":[ {"op":"x"} ],"label":"L","ops":[]})"), "ops",
       toolCall("tondrel_edit", R"({"ops":[],"label":"L","ops":[]})"), R"([{"op":"x"}])"},
      {R"({"params":{"arguments":{"ops":[1]},"name":"tondrel_edit"},"params":{}})", "ops",
       R"({"params":{"arguments":{"ops":[]},"name":"tondrel_edit"},"params":{}})", "[1]"},
      {toolCall("tondrel_edit", R"({"ops":{}})"), std::nullopt},
      {toolCall("tondrel_replace_document", R"({"document":[]})"), std::nullopt},
      {toolCall("tondrel_replace_document", R"({"docu\u006dent":{},"document":{}})"), std::nullopt},
      {toolCall("tondrel_replace_document", R"({"document":{"a":1e400}})"), std::nullopt},
      {toolCall("tondrel_state", R"({"document":{}})"), std::nullopt},
      {R"({"params":{"name":"tondrel_edi\u0074","arguments":{"ops":[]}}})", std::nullopt},
      {R"({"params":[{"name":"tondrel_edit","arguments":{"ops":[]}}]})", std::nullopt},
      {R"([{"params":{"name":"tondrel_edit","arguments":{"ops":[]}}}])", std::nullopt},
  };
  for (const Case& c : cases) {
    auto split = splitForwarded(c.line);
    ASSERT_EQ(split.has_value(), c.key.has_value()) << c.line;
    if (!split) continue;
    EXPECT_EQ(split->key, *c.key);
    EXPECT_EQ(split->tool, findTool(c.key == "ops" ? "tondrel_edit" : "tondrel_replace_document"));
    EXPECT_EQ(split->line, *c.rest);
    EXPECT_EQ(split->json(), *c.json);
  }
}

}  // namespace
}  // namespace tondrel
