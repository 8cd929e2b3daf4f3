// What a tool call gives the agent: the editor's answer as text or as an image,
// or the text of what went wrong; and how each is written as an MCP tool result.
#pragma once

#include <string>

#include "editor_client.hpp"
#include "json.hpp"

namespace tondrel {

struct ToolResult {
  enum class Kind { text, image };
  Kind kind = Kind::text;
  std::string body;      // text: the answer's bytes, repaired to UTF-8 when written; image: its bytes
  bool isError = false;  // text only: the HTTP status was 400 or above
  std::string mimeType;  // image only
  std::string caption;   // image only
};

ToolResult textResult(APIResponse response);
// The image result of a 200 answer that is not JSON; otherwise textResult.
ToolResult imageResult(APIResponse response, std::string caption);
// The result of a tool call that threw: its text is the error's description.
ToolResult failedResult(std::string description);
void writeToolResult(JsonWriter& out, const ToolResult& result);

// Writes the tool result of an editor answer into out while the answer arrives,
// byte for byte as writeToolResult would write textResult or imageResult of the
// whole answer, without ever holding the answer whole. A caption asks for an
// image result (when the answer is an image).
class ResultSink final : public AnswerSink {
 public:
  ResultSink(JsonWriter& out, std::string_view caption) : out_(out), caption_(caption) {}

  void head(const APIResponse& head) override;
  void body(std::string_view piece) override;
  // Closes the result once the transport has returned response; what it carries
  // in data (a transport that did not stream) is written first.
  void finish(const APIResponse& response);

 private:
  JsonWriter& out_;
  std::string_view caption_;
  bool headed_ = false, image_ = false, isError_ = false;
  std::string mimeType_;
  std::string carry_;  // bytes that belong with the next piece
};

}  // namespace tondrel
