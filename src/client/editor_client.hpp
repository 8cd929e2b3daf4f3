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

namespace tondrel {

struct APIResponse {
  std::int64_t status = 0;
  std::string data;         // empty: the body streams to an AnswerSink, so that a large one is held once
  std::string contentType;  // as received, parameters included; "" when absent
  std::unordered_map<std::string, std::string> headers;  // names in lower case; empty, as data, when streamed
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

// Takes an answer while it arrives, so that a large one is never held whole: its
// head once (status, contentType and headers), with the length of the body that
// HTTP gives it, then its body in pieces. Either may throw (std::bad_alloc, say);
// the transport then ends the exchange and throws the same. What a sink made of a
// call that throws is void.
class AnswerSink {
 public:
  virtual ~AnswerSink() = default;
  // announced: the Content-Length of an answer that has a body of that length; 0
  // when HTTP gives none (chunked, ended by closing, or a status without a body).
  virtual void head(const APIResponse& head, std::uint64_t announced) = 0;
  virtual void body(std::string_view piece) = 0;
};

// Sends method and path (relative to the API base) with an optional JSON body and
// hands the answer to the sink, whatever its status; returns its head, or throws
// ProxyError. Each request goes out at most once.
using Transport = std::function<APIResponse(std::string_view method, std::string_view path,
                                            std::optional<std::string_view> body, AnswerSink& sink)>;

// "http://127.0.0.1:" and the port from TONDREL_API_PORT, 17910 unless it holds
// a signed decimal that fits 64 bits.
std::string apiBaseURL(const std::map<std::string, std::string>& environment);

}  // namespace tondrel
