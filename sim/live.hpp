// What the open pages see, kept apart from the session under a lock of its own, so that
// a page never waits on the API's lock nor holds it: the project in short as the last
// change left it, the request log, the faults, and the events that tell each page what
// changed since it last looked.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "request_log.hpp"
#include "session.hpp"

namespace tondrel::sim {

// The project in short, as the page shows it: tracks and their clips, selection,
// transport, undo and redo labels.
json projectSummary(const Session& session);

class Live {
 public:
  static constexpr int kMostStreams = 32;

  explicit Live(json project);

  // After each /v1 request: its log entry, the project in short when the request may
  // have changed it, and the /v1 connections as they are now.
  void recorded(LogEntry entry, std::optional<json> project, json connections);
  void changed(json project);  // the project changed outside any request
  void connectionsChanged(json connections);
  void faultsChanged(json faults);

  std::uint64_t version() const;       // bumped by every change of the project
  json state(json connections) const;  // what /live.json answers
  std::optional<json> logEntry(std::uint64_t id) const;

  // An event stream's next text: everything that happened after event `seen` (for a stream
  // that has seen nothing yet, a hello with the whole state), waiting up to `wait` for
  // something; "" when nothing came or once stopped.
  std::string next(std::optional<std::uint64_t>& seen, std::chrono::milliseconds wait);
  bool openStream();  // false when kMostStreams are open
  void closeStream();
  void stop();  // every stream ends
  bool stopped() const;

 private:
  void publish(const char* name, const json& data);
  void publishProject(json project);
  json stateLocked(json connections) const;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  RequestLog log_;
  json project_, faults_ = json::object(), connections_ = {{"open", 0}, {"most", 0}};
  std::uint64_t version_ = 1, requests_ = 0;
  std::int64_t changedAt_ = 0;
  std::deque<std::pair<std::uint64_t, std::string>> events_;  // the latest, numbered
  std::uint64_t lastEvent_ = 0;
  std::size_t eventBytes_ = 0;
  int streams_ = 0;
  bool stopped_ = false;
};

}  // namespace tondrel::sim
