#include "session.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <tuple>

namespace tondrel::sim {

Session::Session(int apiPort) : document_(emptyDocument()), apiPort_(apiPort) {}

void Session::commit(json next, const std::string& label) {
  undo_.push_back({label, std::move(document_)});
  if (undo_.size() > 200) undo_.erase(undo_.begin());  // bounded history: memory stays small
  redo_.clear();
  document_ = std::move(next);
  dirty_ = true;
  ++changeCount_;
}

// Undo and redo move one step between the two histories, keeping its label.
void Session::step(std::vector<UndoStep>& from, std::vector<UndoStep>& to, const char* nothing) {
  if (from.empty()) throw SimError(nothing);
  UndoStep step = std::move(from.back());
  from.pop_back();
  to.push_back({step.label, std::move(document_)});
  document_ = std::move(step.before);
  dirty_ = true;
  ++changeCount_;
}

void Session::undo() {
  step(undo_, redo_, "nothing to undo");
}

void Session::redo() {
  step(redo_, undo_, "nothing to redo");
}

void Session::load(json document, std::optional<std::string> path) {
  document_ = std::move(document);
  undo_.clear();
  redo_.clear();
  file = std::move(path);
  dirty_ = false;
  ++changeCount_;
  selectedClips = json::array();
  selectedTrack.reset();
  selectionRange.reset();
  loop_.reset();
  playing_ = false;
  time_ = 0;
}

double Session::time() const {
  if (!playing_) return time_;
  double t = time_ + std::chrono::duration<double>(Clock::now() - since_).count();
  if (loop_ && loop_->second > loop_->first && t >= loop_->second)
    t = loop_->first + std::fmod(t - loop_->first, loop_->second - loop_->first);
  return std::min(t, std::max(projectDuration(document_), loop_ ? loop_->second : 0.0));
}

static json rangeJSON(const std::optional<std::pair<double, double>>& range) {
  return range ? json::array({range->first, range->second}) : json(nullptr);
}

json Session::state() const {
  double t = time();
  double duration = projectDuration(document_);
  bool running = playing_ && (loop_ || t < duration);
  return {{"file", file ? json(*file) : json(nullptr)},
          {"dirty", dirty_},
          {"changeCount", changeCount_},
          {"playing", running},
          {"time", t},
          {"duration", duration},
          {"loopRange", rangeJSON(loop_)},
          {"selectionRange", rangeJSON(selectionRange)},
          {"selectedClips", selectedClips},
          {"selectedTrack", selectedTrack ? json(*selectedTrack) : json(nullptr)},
          {"peakLeft", 0.0},
          {"peakRight", 0.0},
          {"oscInPort", nullptr},
          {"apiPort", apiPort_},
          {"undoLabel", undo_.empty() ? json(nullptr) : json(undo_.back().label)},
          {"redoLabel", redo_.empty() ? json(nullptr) : json(redo_.back().label)},
          {"version", "0.9.0-sim"}};
}

void Session::transport(const json& request) {
  if (!request.is_object() || !request.contains("action") || !request["action"].is_string())
    throw SimError("action must be one of play, pause, toggle, stop, rewind, seek, loop, loopOff");
  std::string action = request["action"];
  double now = time();
  auto halt = [&](double at) {
    playing_ = false;
    time_ = at;
  };
  if (action == "play" || (action == "toggle" && !playing_)) {
    time_ = now;
    since_ = Clock::now();
    playing_ = true;
  } else if (action == "pause" || action == "toggle") {
    halt(now);
  } else if (action == "stop" || action == "rewind") {
    if (action == "stop") playing_ = false;
    time_ = 0;
    since_ = Clock::now();
  } else if (action == "seek") {
    if (!request.contains("time") || !request["time"].is_number())
      throw SimError("seek needs time, a number");
    time_ = checkedTime(request["time"].get<double>(), "time");
    since_ = Clock::now();
  } else if (action == "loop") {
    if (request.contains("range"))
      loop_ = readRange(request["range"], "range");
    else if (selectionRange)
      loop_ = selectionRange;
    else
      throw SimError("loop needs range [start, end], or a selected time range");
  } else if (action == "loopOff") {
    loop_.reset();
  } else {
    throw SimError("unknown action '" + action +
                   "': expected play, pause, toggle, stop, rewind, seek, loop or loopOff");
  }
}

namespace {

json clipsNamed(const json& document, const json& ids) {
  if (!ids.is_array()) throw SimError("clips must be an array of clip UUID strings");
  for (const json& id : ids) {
    bool found = false;
    if (id.is_string())
      for (const json& track : document["tracks"])
        for (const json& clip : track["clips"]) found = found || clip["id"] == id;
    if (!found)
      throw SimError("clips: no clip with id " +
                     (id.is_string() ? id.dump() : std::string("of that kind: ids are strings")));
  }
  return ids;
}

int trackNamed(const json& document, const json& index) {
  auto count = static_cast<long long>(document["tracks"].size());
  if (!index.is_number_integer() || index.get<long long>() < 0 || index.get<long long>() >= count)
    throw SimError("track must be a track index below " + std::to_string(count) + ", the number of tracks");
  return index.get<int>();
}

// The span that shows the selected range and clips; {0, 0} (the whole project) when it is empty.
std::pair<double, double> fitted(const json& document, const json& clips,
                                 std::optional<std::pair<double, double>> range) {
  double start = kMaxTime, end = 0;
  if (range) start = range->first, end = range->second;
  for (const json& track : document["tracks"])
    for (const json& clip : track["clips"])
      if (std::find(clips.begin(), clips.end(), clip["id"]) != clips.end())
        start = std::min(start, clip["offset"].get<double>()), end = std::max(end, clipEnd(clip));
  return end - start >= 1e-3 ? std::pair{start, end} : std::pair{0.0, 0.0};
}

}  // namespace

void Session::select(const json& request) {
  if (!request.is_object()) throw SimError("the body must be a JSON object");
  auto given = [&](const char* key) { return request.empty() || request.contains(key); };
  auto null = [&](const char* key) { return request.empty() || request[key].is_null(); };
  // Everything is checked before anything changes.
  json clips = !given("clips") ? selectedClips
               : null("clips") ? json::array()
                               : clipsNamed(document_, request["clips"]);
  auto track = !given("track") ? selectedTrack
               : null("track") ? std::nullopt
                               : std::optional<int>(trackNamed(document_, request["track"]));
  auto range = !given("range") ? selectionRange
               : null("range") ? std::nullopt
                               : std::optional(readRange(request["range"], "range"));
  if (request.contains("fit") && !request["fit"].is_boolean()) throw SimError("fit must be a boolean");
  selectedClips = clips;
  selectedTrack = track;
  selectionRange = range;
  if (request.value("fit", false)) std::tie(zoomStart, zoomEnd) = fitted(document_, clips, range);
}

std::string Session::resolvedPath(const std::string& path) const {
  std::filesystem::path given(path);
  if (given.is_absolute() || !file) return path;
  return (std::filesystem::path(*file).parent_path() / given).string();
}

}  // namespace tondrel::sim
