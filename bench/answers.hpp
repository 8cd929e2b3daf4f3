// The requests a host sends, and the checks every answer must pass.
#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

inline const std::string kInitialize =
    R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
    R"("capabilities":{},"clientInfo":{"name":"tondrel-bench","version":"1"}}})"
    "\n";
inline const std::string kInitialized = R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
                                        "\n";

inline std::string call(long id, std::string_view tool, std::string_view arguments = {}) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/call","params":{"name":")" +
         std::string(tool) + "\"" + (arguments.empty() ? "" : R"(,"arguments":)" + std::string(arguments)) +
         "}}\n";
}
inline std::string list(long id) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/list"})"
         "\n";
}

inline bool initialized(std::string_view line) {
  auto answer = nlohmann::json::parse(line, nullptr, false);
  return !answer.is_discarded() && answer["id"] == 0 && answer["result"]["protocolVersion"] == "2025-06-18" &&
         answer["result"]["serverInfo"]["name"] == "tondrel";
}

// Same answer to a repeated request: `line` is `reference` (the answer to id 1) with its id replaced.
inline bool sameAnswer(std::string_view line, std::string_view reference, long id) {
  auto at = reference.find(R"("id":1,)");
  std::string key = "\"id\":" + std::to_string(id) + ",";
  return at != std::string_view::npos && line.substr(0, at) == reference.substr(0, at) &&
         line.substr(at, key.size()) == key && line.substr(at + key.size()) == reference.substr(at + 7);
}

inline std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  for (std::size_t at; (at = text.find('\n')) != std::string_view::npos; text.remove_prefix(at + 1))
    lines.push_back(text.substr(0, at + 1));
  return lines;
}

inline std::string base64Decode(std::string_view text) {
  static const auto table = [] {
    std::array<int, 256> t{};
    t.fill(-1);
    for (int i = 0; i < 64; ++i) t["ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[i]] = i;
    return t;
  }();
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  int count = 0;
  for (unsigned char c : text) {
    if (table[c] < 0) break;  // '=' padding ends it
    bits = (bits << 6) | table[c];
    if ((count += 6) >= 8) bytes.push_back(static_cast<char>(bits >> (count -= 8)));
  }
  return bytes;
}

// The text of a successful one-text tool result, or nothing.
inline std::optional<std::string> resultText(std::string_view line) {
  auto answer = nlohmann::json::parse(line, nullptr, false);
  if (answer.is_discarded() || !answer.contains("result")) return std::nullopt;
  const auto& result = answer["result"];
  if (result.value("isError", true) || result["content"].size() != 1) return std::nullopt;
  return result["content"][0].value("text", "");
}

// Whether an image result carries exactly `png`.
inline bool imageIs(std::string_view line, std::string_view png) {
  auto answer = nlohmann::json::parse(line, nullptr, false);
  if (answer.is_discarded()) return false;
  const auto& image = answer["result"]["content"][0];
  return image["type"] == "image" && image["mimeType"] == "image/png" &&
         base64Decode(image["data"].get<std::string>()) == png;
}

}  // namespace bench
