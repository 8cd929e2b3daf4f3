// What a tool call gives the agent: the editor's answer as text or as an image,
// or the text of what went wrong; and how each is written as an MCP tool result.
#pragma once

#include <cstdint>
#include <string>

#include "editor_client.hpp"
#include "json_writer.hpp"

namespace tondrel {

// The result of a tool call that failed: one text item, the agent's whole text,
// marked as an error.
void writeFailedResult(JsonWriter& out, std::string_view text);

// Writes the tool result of an editor answer into out while the answer arrives,
// without ever holding the answer whole: a text result (its bytes repaired to
// UTF-8, "isError" for a status of 400 and above), or, when a caption is given and
// the answer is a 200 that is not JSON, an image result with that caption.
class ResultSink final : public AnswerSink {
 public:
  ResultSink(JsonWriter& out, std::string_view caption) : out_(out), caption_(caption) {}

  void head(const APIResponse& head, std::uint64_t announced) override;
  void body(std::string_view piece) override;
  // Closes the result once the transport has returned (and so given the head).
  void finish();
  // Whether an answer has begun to arrive.
  bool started() const { return started_; }

 private:
  JsonWriter& out_;
  std::string_view caption_;
  bool started_ = false, image_ = false, isError_ = false;
  std::string mimeType_;
  std::string carry_;  // bytes that belong with the next piece
};

}  // namespace tondrel
