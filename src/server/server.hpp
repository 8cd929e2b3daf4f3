// The JSON-RPC frame: one line in, its answer out. No descriptors, no waiting
// but for the editor inside a tool call.
#pragma once

#include <simdjson.h>

#include <optional>
#include <string>
#include <string_view>

#include "catalogue.hpp"
#include "editor_client.hpp"
#include "forwarded.hpp"
#include "json_reader.hpp"
#include "json_writer.hpp"

namespace tondrel {

class TondrelMCPServer {
 public:
  TondrelMCPServer(Transport transport, std::string apiBase, std::string version);

  // Appends the answer to one line, without its line feed, to out (or nothing,
  // for a notification) and says false; or, for a call that goes to the editor,
  // appends nothing and says true: runCall() then carries it out and appends its
  // answer. So a loop need not hold earlier answers back while a call waits. line
  // must be followed by simdjson::SIMDJSON_PADDING readable bytes, and stay until
  // runCall() returns. Neither throws.
  bool handle(std::string_view line, Buffer& out);
  void runCall(Buffer& out);

  // The answer to a line that did not fit in memory.
  void unreadable(Buffer& out);

  // Gives back the memory a large line needed, once its answer is out.
  void release();

  const std::string& apiBase() const { return apiBase_; }

 private:
  // A method's answer, written after "id"; false when it waits for runCall().
  using Handler = bool (TondrelMCPServer::*)(const Members& params, JsonWriter& out);
  struct Method {
    std::string_view name;
    Handler handler;
  };
  static const Method kMethods[];

  // What runCall() carries out: views into the parsed line, and the forwarded member.
  struct Call {
    const ToolDefinition* tool;
    simdjson::dom::element id;
    Members arguments;
    std::optional<ForwardedLine> forwarded;
  };

  bool answer(std::string_view line, Buffer& out);
  bool initialize(const Members& params, JsonWriter& out);
  bool ping(const Members& params, JsonWriter& out);
  bool listTools(const Members& params, JsonWriter& out);
  bool prepareCall(const Members& params, JsonWriter& out);

  Transport transport_;
  std::string apiBase_;
  std::string version_;
  simdjson::dom::parser parser_;
  std::string repaired_;                    // a line whose invalid UTF-8 was replaced
  std::optional<ForwardedLine> forwarded_;  // the member of the line being read sent from its text
  std::optional<Call> call_;                // the call handle() left to runCall()
};

}  // namespace tondrel
