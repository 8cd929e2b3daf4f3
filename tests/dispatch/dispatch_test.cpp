// A call of a tool given by its name, as a caller outside the server makes it.
#include "dispatch.hpp"

#include <gtest/gtest.h>

#include <string>

namespace tondrel {
namespace {

TEST(CallTool, ByNameTakesTheToolsRowOrSaysItIsUnknown) {
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"tondrel_redo", "POST /v1/redo", R"({"content":[{"type":"text","text":"done"}],"isError":false})"},
      {"tondrel_nope", "",
       R"({"content":[{"type":"text","text":"unknown tool tondrel_nope"}],"isError":true})"},
      {"", "", R"({"content":[{"type":"text","text":"unknown tool "}],"isError":true})"},
  };
  for (const auto& [name, request, result] : cases) {
    std::string sent;
    Buffer out;
    Transport editor = [&sent](std::string_view method, std::string_view path,
                               std::optional<std::string_view>, AnswerSink& sink) {
      sent = std::string(method) + " " + std::string(path);
      sink.head({200, "", "application/json", {}}, 4);
      sink.body("done");
      return APIResponse{};
    };
    JsonWriter writer(out);
    callTool(editor, name, Members(), writer);
    EXPECT_EQ(sent, request) << name;
    EXPECT_EQ(out.view(), result) << name;
  }
}

}  // namespace
}  // namespace tondrel
