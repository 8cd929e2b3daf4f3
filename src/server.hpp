// The JSON-RPC frame: one line in, its answer out. No descriptors, no waiting
// but for the editor inside a tool call.
#pragma once

#include <simdjson.h>

#include <optional>
#include <string>
#include <string_view>

#include "dispatch.hpp"
#include "editor_client.hpp"
#include "json.hpp"

namespace tondrel {

class TondrelMCPServer {
 public:
  TondrelMCPServer(Transport transport, std::string apiBase, std::string version);

  // The answer to one line without its line feed, or nothing. Never throws.
  std::optional<std::string> handle(std::string_view line);

  // handle() without copies: appends the answer to out and says whether there is
  // one; out is left as it was when there is none. line must be followed by
  // simdjson::SIMDJSON_PADDING readable bytes. Never throws.
  bool handlePadded(std::string_view line, std::string& out);

  // Gives back the memory a large line needed, once its answer is out.
  void release();

  const std::string& apiBase() const { return apiBase_; }

 private:
  using Handler = void (TondrelMCPServer::*)(const Members& params, JsonWriter& out);
  struct Method {
    std::string_view name;
    Handler handler;
  };
  static const Method kMethods[];

  bool answer(std::string_view line, std::string& out);
  void initialize(const Members& params, JsonWriter& out);
  void ping(const Members& params, JsonWriter& out);
  void listTools(const Members& params, JsonWriter& out);
  void callToolRequest(const Members& params, JsonWriter& out);

  Transport transport_;
  std::string apiBase_;
  std::string version_;
  simdjson::dom::parser parser_;
  std::string padded_;                          // a line copied so that the parser may read past its end
  std::string repaired_;                        // a line whose invalid UTF-8 was replaced
  std::optional<ForwardedArgument> forwarded_;  // the member of the line being answered sent from its text
};

}  // namespace tondrel
