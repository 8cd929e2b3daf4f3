#include "live.hpp"

#include <filesystem>

namespace tondrel::sim {

namespace {

// A page further behind than these starts again from a hello.
constexpr std::size_t kKeptEvents = 256, kKeptEventBytes = 4 << 20;
// The page shows the project in short: a large one's summary stays small.
constexpr std::size_t kTracksShown = 64, kClipsShown = 50;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string text(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

json projectSummary(const Session& session) {
  json state = session.state(), tracks = json::array();
  for (const json& track : session.document()["tracks"]) {
    if (tracks.size() == kTracksShown) break;
    json clips = json::array();
    for (const json& clip : track["clips"]) {
      if (clips.size() == kClipsShown) break;
      clips.push_back({{"id", clip["id"]},
                       {"name", std::filesystem::path(clip["path"].get<std::string>()).filename().string()},
                       {"offset", clip["offset"]},
                       {"duration", clip["duration"]}});
    }
    tracks.push_back({{"id", track["id"]},
                      {"name", track["name"]},
                      {"kind", track["kind"]},
                      {"mute", track["mute"]},
                      {"solo", track["solo"]},
                      {"clips", clips},
                      {"clipCount", track["clips"].size()},
                      {"noteCount", track["notes"].size()}});
  }
  json summary = {{"tracks", tracks},
                  {"trackCount", session.document()["tracks"].size()},
                  {"markers", session.document()["markers"].size()}};
  for (const char* key : {"file", "dirty", "changeCount", "duration", "playing", "time", "loopRange",
                          "selectionRange", "selectedClips", "selectedTrack", "undoLabel", "redoLabel"})
    summary[key] = state[key];
  return summary;
}

Live::Live(json project) : project_(std::move(project)), changedAt_(nowMs()) {}

void Live::publish(const char* name, const json& data) {
  events_.emplace_back(++lastEvent_, std::string("event: ") + name + "\ndata: " + text(data) + "\n\n");
  eventBytes_ += events_.back().second.size();
  while (events_.size() > kKeptEvents || (events_.size() > 1 && eventBytes_ > kKeptEventBytes)) {
    eventBytes_ -= events_.front().second.size();
    events_.pop_front();
  }
  changed_.notify_all();
}

void Live::publishProject(json project) {
  project_ = std::move(project);
  changedAt_ = nowMs();
  publish("project", {{"version", ++version_}, {"changedAt", changedAt_}, {"project", project_}});
}

void Live::changed(json project) {
  std::lock_guard guard(mutex_);
  publishProject(std::move(project));
}

void Live::recorded(LogEntry entry, std::optional<json> project, json connections) {
  std::lock_guard guard(mutex_);
  if (project) publishProject(std::move(*project));
  connections_ = std::move(connections);
  publish("request", {{"entry", RequestLog::row(log_.add(std::move(entry)))},
                      {"requests", ++requests_},
                      {"connections", connections_}});
}

void Live::connectionsChanged(json connections) {
  std::lock_guard guard(mutex_);
  connections_ = std::move(connections);
  publish("connections", connections_);
}

void Live::faultsChanged(json faults) {
  std::lock_guard guard(mutex_);
  faults_ = std::move(faults);
  publish("faults", faults_);
}

std::uint64_t Live::version() const {
  std::lock_guard guard(mutex_);
  return version_;
}

json Live::state(json connections) const {
  std::lock_guard guard(mutex_);
  return stateLocked(std::move(connections));
}

json Live::stateLocked(json connections) const {
  return {{"version", version_},   {"changedAt", changedAt_},
          {"requests", requests_}, {"apiConnections", std::move(connections)},
          {"streams", streams_},   {"faults", faults_},
          {"project", project_}};
}

std::optional<json> Live::logEntry(std::uint64_t id) const {
  std::lock_guard guard(mutex_);
  return log_.entry(id);
}

std::string Live::next(std::optional<std::uint64_t>& seen, std::chrono::milliseconds wait) {
  std::unique_lock guard(mutex_);
  if (stopped_) return "";
  if (!seen || (!events_.empty() && *seen + 1 < events_.front().first)) {
    seen = lastEvent_;
    json hello = stateLocked(connections_);
    hello["log"] = log_.list();
    // A page that loses its stream tries again a second later.
    return "retry: 1000\nevent: hello\ndata: " + text(hello) + "\n\n";
  }
  changed_.wait_for(guard, wait, [&] { return stopped_ || lastEvent_ > *seen; });
  std::string out;
  for (const auto& [number, event] : events_)
    if (number > *seen && !stopped_) out += event;
  seen = lastEvent_;
  return out;
}

bool Live::openStream() {
  std::lock_guard guard(mutex_);
  if (streams_ >= kMostStreams || stopped_) return false;
  ++streams_;
  return true;
}

void Live::closeStream() {
  std::lock_guard guard(mutex_);
  --streams_;
}

void Live::stop() {
  std::lock_guard guard(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

bool Live::stopped() const {
  std::lock_guard guard(mutex_);
  return stopped_;
}

}  // namespace tondrel::sim
