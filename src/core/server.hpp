// The MCP server: lines in, JSON-RPC answers out, tool calls carried to the editor.
#pragma once

#include <simdjson.h>

#include <optional>
#include <string>
#include <string_view>

#include "json.hpp"
#include "proxy.hpp"

namespace tondrel {

// What a tool call gives the agent: the editor's answer as text, or as an image.
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

class TondrelMCPServer {
 public:
  TondrelMCPServer(Transport transport, std::string apiBase, std::string version);

  // Answers each line of input on output, one line each, until input ends.
  void run(int input = 0, int output = 1);

  // The answer to one line without its line feed, or nothing.
  std::optional<std::string> handle(std::string_view line);

  // handle() without copies: appends the answer to out and says whether there is
  // one. line must be followed by simdjson::SIMDJSON_PADDING readable bytes.
  bool handlePadded(std::string_view line, std::string& out);

  // Carries out one call of a catalogued tool; throws what the agent should read.
  ToolResult callTool(std::string_view name, const Members& args);

  const std::string& apiBase() const { return apiBase_; }

 private:
  using Handler = void (TondrelMCPServer::*)(const Members& params, JsonWriter& out);
  struct Method {
    std::string_view name;
    Handler handler;
  };
  static const Method kMethods[];

  // Writes {"jsonrpc":"2.0","id":id, ...} with the member that answer writes.
  template <typename Answer>
  static void encode(std::string& out, const simdjson::dom::element* id, Answer&& answer);
  static void writeError(JsonWriter& out, int code, std::string_view message, std::string_view detail = {});

  void initialize(const Members& params, JsonWriter& out);
  void ping(const Members& params, JsonWriter& out);
  void listTools(const Members& params, JsonWriter& out);
  void callToolRequest(const Members& params, JsonWriter& out);

  Transport transport_;
  std::string apiBase_;
  std::string version_;
  simdjson::dom::parser parser_;
  std::string padded_;        // a line copied so that the parser may read past its end
  std::string repaired_;      // a line whose invalid UTF-8 was replaced
  std::string body_;          // request bodies, reused across calls
  std::size_t lineSize_ = 0;  // of the line being handled: a forwarded body is about as long

  // While run() goes on: answers already complete at the front of *pending_ wait
  // to be written together with the next ones, but never while a call waits for the editor.
  void writeCompleteAnswers();
  int output_ = -1;
  std::string* pending_ = nullptr;
  std::size_t complete_ = 0;
  bool outputGone_ = false;
};

}  // namespace tondrel
