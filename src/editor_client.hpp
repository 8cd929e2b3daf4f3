// The editor client: where the editor's HTTP API is, one HTTP exchange with it,
// and what comes back.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "editor_port.hpp"

namespace tondrel {

struct APIResponse {
  std::int64_t status = 0;
  std::string data;
  std::string contentType;                               // as received, parameters included; "" when absent
  std::unordered_map<std::string, std::string> headers;  // names in lower case
};

class ProxyError : public std::exception {
 public:
  enum class Kind { unreachable, badArguments };

  // No HTTP answer came back from the editor at base.
  static ProxyError unreachable(std::string base);
  // The request could not be formed; message is the agent's whole text.
  static ProxyError badArguments(std::string message);

  Kind kind() const { return kind_; }
  const std::string& payload() const { return payload_; }
  const std::string& description() const { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  ProxyError(Kind kind, std::string payload, std::string description)
      : kind_(kind), payload_(std::move(payload)), description_(std::move(description)) {}

  Kind kind_;
  std::string payload_;
  std::string description_;
};

// Takes an answer while it arrives, so that a large one need not be held whole
// twice: its head once (status, contentType and headers; no data), then its body
// in pieces. Either may throw (std::bad_alloc, say); the transport then ends the
// exchange and throws the same. What a sink made of a call that throws is void.
class AnswerSink {
 public:
  virtual ~AnswerSink() = default;
  virtual void head(const APIResponse& head) = 0;
  virtual void body(std::string_view piece) = 0;
};

// Sends method and path (relative to the API base) with an optional JSON body;
// returns the answer whatever its status, or throws ProxyError. With a sink, the
// body goes to the sink instead of into the returned data, and the head reaches
// the sink before the call returns.
using Transport = std::function<APIResponse(std::string_view method, std::string_view path,
                                            std::optional<std::string_view> body, AnswerSink* sink)>;

// "http://127.0.0.1:" and the port from TONDREL_API_PORT, 17910 unless it holds
// a signed decimal that fits 64 bits.
std::string apiBaseURL(const std::map<std::string, std::string>& environment);

// A transport over libcurl, loaded and set up on the first call. Each request goes
// out at most once: GETs share one kept-alive connection, checked before each use;
// a request that may change the project (any other method) goes out on a
// connection of its own, which nothing ever sends again. timeout bounds connecting
// and any silence of the editor, in seconds.
Transport curlTransport(std::string base, double timeout);

}  // namespace tondrel
