// Feeds arbitrary lines to the server, with an editor that answers from memory,
// and checks that every answer is one line of valid JSON-RPC.
#include <simdjson.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "server.hpp"

namespace {

// How the stand-in editor answers varies with the line as well as the request:
// the snapshot's request is fixed, yet its answer should still range over every case.
std::size_t seed = 0;

tondrel::APIResponse answer(std::string_view method, std::string_view path,
                            std::optional<std::string_view> body, tondrel::AnswerSink& sink) {
  std::size_t n = seed + method.size() + path.size() + (body ? body->size() : 0);
  if (n % 7 == 0) throw tondrel::ProxyError::unreachable("http://127.0.0.1:17910");
  static constexpr std::int64_t kStatuses[] = {200, 404, 500};
  static constexpr std::string_view kTypes[] = {"application/json", "image/png", "Image/PNG; charset=x", "",
                                                "image/p\xffng"};
  tondrel::APIResponse response;
  response.status = kStatuses[n % 3];
  response.contentType = kTypes[(n / 3) % std::size(kTypes)];
  // Echo what was sent, after bytes that are not UTF-8, as a real PNG starts.
  if (n % 2) response.data = "\x89PNG\r\n\x1a\n";
  response.data += body ? *body : path;
  tondrel::APIResponse head = response;
  head.data.clear();
  sink.head(head, response.data.size());
  sink.body(response.data);
  return head;
}

void check(bool ok, const char* what, const std::string& answer) {
  if (ok) return;
  std::fprintf(stderr, "invariant broken: %s\nanswer: %s\n", what, answer.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // One server for the whole run, as in production: buffers are reused across lines.
  static tondrel::TondrelMCPServer server(answer, "http://127.0.0.1:17910", "0.9.0");
  static simdjson::dom::parser parser;

  static std::string padded;
  static tondrel::Buffer answer;
  padded.assign(reinterpret_cast<const char*>(data), size);
  padded.reserve(size + simdjson::SIMDJSON_PADDING);
  seed = std::hash<std::string>{}(padded);
  answer.clear();
  if (server.handle(padded, answer)) server.runCall(answer);
  if (answer.empty()) return 0;
  const std::string out(answer.view());

  check(out.find('\n') == std::string::npos, "no line feed inside an answer", out);
  simdjson::dom::element root;
  check(parser.parse(out).get(root) == simdjson::SUCCESS, "the answer parses", out);
  std::string_view version;
  check(root["jsonrpc"].get(version) == simdjson::SUCCESS && version == "2.0", "\"jsonrpc\":\"2.0\"", out);
  check(root["id"].error() == simdjson::SUCCESS, "an id", out);
  bool hasResult = root["result"].error() == simdjson::SUCCESS;
  bool hasError = root["error"].error() == simdjson::SUCCESS;
  check(hasResult != hasError, "exactly one of result and error", out);
  return 0;
}
