#include "server.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "catalogue.hpp"

namespace tondrel {
namespace {

using nlohmann::json;

// The answer the server gives a line, as the line loop asks for it.
std::optional<std::string> answer(TondrelMCPServer& server, std::string_view line) {
  std::string padded(line);
  padded.reserve(line.size() + simdjson::SIMDJSON_PADDING);
  Buffer out;
  if (server.handle(padded, out)) server.runCall(out);
  if (out.empty()) return std::nullopt;
  return std::string(out.view());
}

// A server whose editor is never reached: these tests are about the frame.
TondrelMCPServer offline() {
  return TondrelMCPServer(
      [](std::string_view, std::string_view, std::optional<std::string_view>, AnswerSink&) -> APIResponse {
        throw ProxyError::unreachable("http://127.0.0.1:1");
      },
      "http://127.0.0.1:1", "0.9.0");
}

TEST(Handle, AnswersEachKindOfLineAsJsonRpcSays) {
  const std::string parseError =
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"parse error"}})";
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"", std::nullopt},
      {" \t\r\n\xC2\xA0\xE2\x80\xA8\xE3\x80\x80", std::nullopt},
      {"[]", parseError},
      {R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", parseError},
      {"null", parseError},
      {R"({"id":1,"method":"ping"} {"id":2,"method":"ping"})", parseError},
      {R"({"id":1,"method":"ping")", parseError},
      {"{\"id\":\"a\xFF\",\"method\":\"ping\"}",
       "{\"jsonrpc\":\"2.0\",\"id\":\"a\xEF\xBF\xBD\",\"result\":{}}"},
      {std::string(2000, '[') + std::string(2000, ']'), parseError},
      {R"({"id":1})", std::nullopt},
      {R"({"id":1,"method":5})", std::nullopt},
      {R"({"method":"ping"})", std::nullopt},
      {R"({"method":"tools/call","params":{"name":"tondrel_state"}})", std::nullopt},
      {R"({"jsonrpc":"2.0","id":1,"method":"ping"})", R"({"jsonrpc":"2.0","id":1,"result":{}})"},
      {R"({"id":"abc","method":"ping"})", R"({"jsonrpc":"2.0","id":"abc","result":{}})"},
      {R"({"jsonrpc":"1.0","id":null,"method":"ping"})", R"({"jsonrpc":"2.0","id":null,"result":{}})"},
      {R"({"id":-1.50,"method":"ping"})", R"({"jsonrpc":"2.0","id":-1.5,"result":{}})"},
      {R"({"id":2.0,"method":"ping"})", R"({"jsonrpc":"2.0","id":2.0,"result":{}})"},
      {R"({"id":18446744073709551615,"method":"ping"})",
       R"({"jsonrpc":"2.0","id":18446744073709551615,"result":{}})"},
      {R"({"id":-9223372036854775808,"method":"ping"})",
       R"({"jsonrpc":"2.0","id":-9223372036854775808,"result":{}})"},
      {R"({"id":[1,{"b":false,"a":"a/b"}],"method":"ping"})",
       R"({"jsonrpc":"2.0","id":[1,{"b":false,"a":"a/b"}],"result":{}})"},
      {"  {\"id\":true,\"method\":\"ping\"}\t\r", R"({"jsonrpc":"2.0","id":true,"result":{}})"},
      {R"({"id":1,"method":"Ping"})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"method not found: Ping"}})"},
      {R"({"id":1,"method":"notifications/initialized"})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"method not found: notifications/initialized"}})"},
      {R"({"id":1,"method":"tools/call"})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown tool: "}})"},
      {R"({"id":1,"method":"tools/call","params":{"name":"tondrel_State"}})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown tool: tondrel_State"}})"},
      {R"({"id":1,"method":"tools/call","params":{"name":"tondrel_open","arguments":{"path":""}}})",
       R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"text","text":"missing argument 'path'"}],"isError":true}})"},
      {R"({"id":1,"method":"tools/call","params":{"name":"tondrel_state","arguments":[]}})",
       "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{\"content\":[{\"type\":\"text\",\"text\":\"Tondrel is not "
       "reachable at "
       "http://127.0.0.1:1 \xE2\x80\x94 launch /Applications/Tondrel.app and retry.\"}],\"isError\":true}}"},
  };
  TondrelMCPServer server = offline();
  for (const auto& [line, expected] : cases) EXPECT_EQ(answer(server, line), expected) << line;
}

TEST(Handle, InitializeEchoesTheClientsVersionOrOffersItsOwn) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"protocolVersion":"2025-03-26"})", "2025-03-26"},
      {R"({"protocolVersion":""})", ""},
      {R"({"protocolVersion":20250326})", "2024-11-05"},
      {"[]", "2024-11-05"},
      {"null", "2024-11-05"},
  };
  TondrelMCPServer server = offline();
  for (auto [params, version] : cases) {
    auto line = answer(
        server, std::string(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":)") + params + "}");
    ASSERT_TRUE(line) << params;
    json result = json::parse(*line)["result"];
    EXPECT_EQ(result["protocolVersion"], version) << params;
    EXPECT_EQ(result["capabilities"], json::parse(R"({"tools":{}})"));
    EXPECT_EQ(result["serverInfo"], json::parse(R"({"name":"tondrel","version":"0.9.0"})"));
  }
  // Every tool the instructions point the agent to must exist.
  std::string instructions =
      json::parse(*answer(server, R"({"id":1,"method":"initialize"})"))["result"]["instructions"];
  for (auto at = instructions.find("tondrel_"); at != std::string::npos;
       at = instructions.find("tondrel_", at + 1))
    EXPECT_TRUE(findTool(
        instructions.substr(at, instructions.find_first_not_of("abcdefghijklmnopqrstuvwxyz_", at) - at)));
}

}  // namespace
}  // namespace tondrel
