// Tool results as the agent reads them, written while the answer arrives in
// pieces of any size: the same bytes wherever the pieces split.
#include "tool_result.hpp"

#include <gtest/gtest.h>

namespace tondrel {
namespace {

std::string streamed(int status, std::string contentType, std::string_view body, std::string_view caption,
                     std::size_t pieceSize) {
  Buffer out;
  JsonWriter writer(out);
  ResultSink sink(writer, caption);
  APIResponse head{status, "", std::move(contentType), {}};
  sink.head(head, body.size());
  for (std::size_t at = 0; at < body.size(); at += pieceSize) sink.body(body.substr(at, pieceSize));
  sink.finish();
  return std::string(out.view());
}

void expectWritten(int status, const std::string& type, std::string_view body, std::string_view caption,
                   const std::string& expected) {
  for (std::size_t pieceSize : {1, 2, 3, 5, 64})
    EXPECT_EQ(streamed(status, type, body, caption, pieceSize), expected)
        << status << " " << type << " " << body << " in pieces of " << pieceSize;
}

std::string text(std::string_view escaped, bool isError = false) {
  return R"({"content":[{"type":"text","text":")" + std::string(escaped) + R"("}],"isError":)" +
         (isError ? "true}" : "false}");
}

TEST(ToolResults, TextCarriesTheBodyRepairedAndMarksStatusesFrom400) {
  const std::string r = "\xEF\xBF\xBD";
  const std::tuple<int, std::string, std::string> cases[] = {
      {200, "", text("")},
      {399, "moved", text("moved")},
      {400, "bad", text("bad", true)},
      {404, R"({"error":"no such clip"})", text(R"({\"error\":\"no such clip\"})", true)},
      {200, "caf\xC3\xA9 \xF0\x9F\x98\x80 \"q\" \\ \n\x01",
       text("caf\xC3\xA9 \xF0\x9F\x98\x80 \\\"q\\\" \\\\ \\n\\u0001")},
      {200, "a\xFFz\xF0\x9F\x98\xF0\x9F\x98\x80\xED\xA0\x80",
       text("a" + r + "z" + r + "\xF0\x9F\x98\x80" + r + r + r)},
      {200, "ends inside \xE2\x82", text("ends inside " + r)},
  };
  for (const auto& [status, body, expected] : cases) {
    expectWritten(status, "application/json", body, "", expected);
    expectWritten(status, "application/json", body, "Snapshot of the Tondrel window.", expected);
  }
}

TEST(ToolResults, ImageOnlyForA200ThatIsNotJson) {
  const std::string caption = "Snapshot of the Tondrel window.";
  auto image = [&](std::string type, std::string data) {
    return R"({"content":[{"type":"image","data":")" + data + R"(","mimeType":")" + type +
           R"("},{"type":"text","text":")" + caption + R"("}]})";
  };
  const std::tuple<int, std::string, std::string, std::string> cases[] = {
      {200, "image/png", "\x89PNG", image("image/png", "iVBORw==")},
      {200, "image/png; x=1", "", image("image/png", "")},
      {200, "IMAGE/JPEG", "a", image("IMAGE/JPEG", "YQ==")},
      {200, "", "ab", image("image/png", "YWI=")},
      {200, "application/octet-stream", "abcdefg", image("image/png", "YWJjZGVmZw==")},
      {200, "application/json; charset=utf-8", "{}", text("{}")},
      {200, "text/x-JSON", "{}", text("{}")},
      {201, "image/png", "x", text("x")},
      {500, "image/png", "down", text("down", true)},
  };
  for (const auto& [status, type, body, expected] : cases)
    expectWritten(status, type, body, caption, expected);
}

}  // namespace
}  // namespace tondrel
