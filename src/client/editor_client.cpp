#include "editor_client.hpp"

#include <charconv>
#include <cstdint>

#include "editor_port.hpp"

namespace tondrel {

ProxyError ProxyError::unreachable(std::string base) {
  std::string text =
      "Tondrel is not reachable at " + base + " \u2014 launch /Applications/Tondrel.app and retry.";
  return {Kind::unreachable, std::move(base), std::move(text)};
}

ProxyError ProxyError::badArguments(std::string message) {
  std::string text = message;
  return {Kind::badArguments, std::move(message), std::move(text)};
}

std::string apiBaseURL(const std::map<std::string, std::string>& environment) {
  std::int64_t port = kDefaultPort;
  if (auto found = environment.find(std::string(kPortVariable)); found != environment.end()) {
    std::string_view text = found->second;
    bool negative = !text.empty() && text[0] == '-';
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
    std::uint64_t magnitude = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    std::uint64_t limit = std::uint64_t(INT64_MAX) + (negative ? 1 : 0);
    if (!text.empty() && error == std::errc() && end == text.data() + text.size() && magnitude <= limit)
      port = negative ? std::int64_t(0 - magnitude) : std::int64_t(magnitude);
  }
  return "http://127.0.0.1:" + std::to_string(port);
}

}  // namespace tondrel
