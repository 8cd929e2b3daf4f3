// The last /v1 requests as the page lists them. Each body is kept up to its first 64 KiB
// and all of them under 16 MiB together, the oldest giving theirs up first, so the log's
// memory is bounded whatever the agent sends.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "document.hpp"

namespace tondrel::sim {

struct LogEntry {
  std::uint64_t id = 0;        // given by the log
  std::int64_t at = 0;         // milliseconds since the epoch, as the answer went out
  std::string method, target;  // target: the path with its query
  int status = 0;              // 0: the connection ended without an answer
  double ms = 0;
  std::vector<std::string> faults;  // injected into this request, or active (serial)
  std::string requestBody, answerBody, answerType;
  std::size_t requestBytes = 0, answerBytes = 0;
  bool dropped = false;  // its bodies made room for newer ones
};

class RequestLog {
 public:
  static constexpr std::size_t kEntries = 1000, kBodyBytes = 64 << 10, kAllBodies = 16 << 20;

  const LogEntry& add(LogEntry entry);
  json list() const;                                  // newest first, without bodies
  std::optional<json> entry(std::uint64_t id) const;  // one row, with its bodies
  std::size_t bodyBytes() const { return bodyBytes_; }

  static json row(const LogEntry& entry);  // what the list shows of one request

 private:
  std::deque<LogEntry> entries_;
  std::size_t bodyBytes_ = 0;
  std::uint64_t nextId_ = 1;
};

}  // namespace tondrel::sim
