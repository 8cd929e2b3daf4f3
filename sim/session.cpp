#include "session.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>

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

void Session::select(const json& request) {
  if (!request.is_object()) throw SimError("the body must be a JSON object");
  if (request.empty()) {
    selectedClips = json::array();
    selectedTrack.reset();
    selectionRange.reset();
    return;
  }
  json clips = selectedClips;
  if (request.contains("clips")) {
    const json& ids = request["clips"].is_null() ? json::array() : request["clips"];
    if (!ids.is_array()) throw SimError("clips must be an array of clip UUID strings");
    clips = json::array();
    for (const json& id : ids) {
      bool found = false;
      if (id.is_string())
        for (const json& track : document_["tracks"])
          for (const json& clip : track["clips"]) found = found || clip["id"] == id;
      if (!found)
        throw SimError("clips: no clip with id " +
                       (id.is_string() ? id.dump() : std::string("of that kind: ids are strings")));
      clips.push_back(id);
    }
  }
  std::optional<int> track = selectedTrack;
  if (request.contains("track")) {
    const json& index = request["track"];
    if (index.is_null())
      track.reset();
    else if (!index.is_number_integer() || index.get<long long>() < 0 ||
             index.get<long long>() >= static_cast<long long>(document_["tracks"].size()))
      throw SimError("track must be a track index from 0 to " + std::to_string(document_["tracks"].size()) +
                     " - 1");
    else
      track = index.get<int>();
  }
  auto range = selectionRange;
  if (request.contains("range")) {
    if (request["range"].is_null())
      range.reset();
    else
      range = readRange(request["range"], "range");
  }
  if (request.contains("fit") && !request["fit"].is_boolean()) throw SimError("fit must be a boolean");
  selectedClips = clips;
  selectedTrack = track;
  selectionRange = range;
  if (request.value("fit", false)) {
    double start = kMaxTime, end = 0;
    if (range) start = range->first, end = range->second;
    for (const json& t : document_["tracks"])
      for (const json& clip : t["clips"])
        if (std::find(clips.begin(), clips.end(), clip["id"]) != clips.end())
          start = std::min(start, clip["offset"].get<double>()), end = std::max(end, clipEnd(clip));
    if (end - start >= 1e-3)
      zoomStart = start, zoomEnd = end;
    else
      zoomStart = zoomEnd = 0;
  }
}

std::string Session::resolvedPath(const std::string& path) const {
  std::filesystem::path given(path);
  if (given.is_absolute() || !file) return path;
  return (std::filesystem::path(*file).parent_path() / given).string();
}

}  // namespace tondrel::sim
