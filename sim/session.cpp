#include "session.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <random>
#include <sstream>
#include <tuple>

namespace tondrel::sim {

std::string newUuid() {
  static std::mt19937_64 generator{std::random_device{}()};
  std::uint64_t high = generator(), low = generator();
  high = (high & ~0xF000ULL) | 0x4000ULL;  // version 4
  low = (low & ~(0xC000ULL << 48)) | (0x8000ULL << 48);
  char text[37];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", unsigned(high >> 32),
                unsigned((high >> 16) & 0xFFFF), unsigned(high & 0xFFFF), unsigned(low >> 48),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return text;
}

json emptyDocument() {
  return {{"version", 1},
          {"sampleRate", 48000},
          {"tempo", {{"bpm", 120.0}, {"numerator", 4}, {"denominator", 4}}},
          {"masterGainDB", 0.0},
          {"tracks", json::array()},
          {"markers", json::array()}};
}

namespace {

enum class Kind { number, integer, string, boolean };

// Copies key from `from` into `to`, checking its type, or writes the default.
void member(json& to, const json& from, const char* key, const json& fallback, Kind kind,
            const std::string& where) {
  if (!from.contains(key) || from[key].is_null()) {
    to[key] = fallback;
    return;
  }
  const json& value = from[key];
  bool ok = kind == Kind::number    ? value.is_number()
            : kind == Kind::integer ? value.is_number_integer()
            : kind == Kind::string  ? value.is_string()
                                    : value.is_boolean();
  static const char* names[] = {"a number", "an integer", "a string", "a boolean"};
  if (!ok) throw SimError(where + "." + key + " must be " + names[static_cast<int>(kind)]);
  if (kind == Kind::number && !(std::abs(value.get<double>()) <= 1e9))
    throw SimError(where + "." + key + " is out of range");
  to[key] = value;
}

json normalizedClip(const json& in, const std::string& where) {
  if (!in.is_object()) throw SimError(where + " must be an object");
  json clip = json::object();
  member(clip, in, "id", newUuid(), Kind::string, where);
  member(clip, in, "path", "", Kind::string, where);
  member(clip, in, "offset", 0.0, Kind::number, where);
  member(clip, in, "sourceStart", 0.0, Kind::number, where);
  member(clip, in, "duration", 0.0, Kind::number, where);
  member(clip, in, "sourceDuration", clip["sourceStart"].get<double>() + clip["duration"].get<double>(),
         Kind::number, where);
  member(clip, in, "gainDB", 0.0, Kind::number, where);
  member(clip, in, "fadeIn", 0.0, Kind::number, where);
  member(clip, in, "fadeOut", 0.0, Kind::number, where);
  member(clip, in, "fadeShape", "cosine", Kind::string, where);
  member(clip, in, "reversed", false, Kind::boolean, where);
  member(clip, in, "mute", false, Kind::boolean, where);
  for (const char* key : {"offset", "sourceStart", "duration", "fadeIn", "fadeOut"})
    if (clip[key].get<double>() < 0 || clip[key].get<double>() > kMaxTime)
      throw SimError(where + "." + key + " must lie between 0 and " + std::to_string(int(kMaxTime)));
  return clip;
}

json normalizedNote(const json& in, const std::string& where) {
  if (!in.is_object()) throw SimError(where + " must be an object");
  json note = json::object();
  member(note, in, "id", newUuid(), Kind::string, where);
  member(note, in, "pitch", 60, Kind::integer, where);
  member(note, in, "start", 0.0, Kind::number, where);
  member(note, in, "duration", 0.5, Kind::number, where);
  member(note, in, "velocity", 100, Kind::integer, where);
  if (note["pitch"].get<long long>() < 0 || note["pitch"].get<long long>() > 127 ||
      note["velocity"].get<long long>() < 0 || note["velocity"].get<long long>() > 127)
    throw SimError(where + ": pitch and velocity must lie between 0 and 127");
  if (note["start"].get<double>() < 0 || note["start"].get<double>() > kMaxTime ||
      note["duration"].get<double>() < 0 || note["duration"].get<double>() > kMaxTime)
    throw SimError(where + " lies outside the timeline");
  return note;
}

json normalizedTrack(const json& in, const std::string& where, std::size_t index) {
  if (!in.is_object()) throw SimError(where + " must be an object");
  json track = json::object();
  member(track, in, "id", newUuid(), Kind::string, where);
  member(track, in, "name", "Track " + std::to_string(index + 1), Kind::string, where);
  member(track, in, "kind", "audio", Kind::string, where);
  if (track["kind"] != "audio" && track["kind"] != "midi")
    throw SimError(where + ".kind must be \"audio\" or \"midi\"");
  member(track, in, "gainDB", 0.0, Kind::number, where);
  member(track, in, "pan", 0.0, Kind::number, where);
  for (const char* key : {"mute", "solo", "locked", "stereoSplit", "isDrum", "pianoRollExpanded"})
    member(track, in, key, false, Kind::boolean, where);
  member(track, in, "program", 0, Kind::integer, where);
  member(track, in, "channel", 0, Kind::integer, where);
  member(track, in, "transpose", 0, Kind::integer, where);
  for (auto [key, low, high] : {std::tuple{"program", 0, 127}, {"channel", 0, 15}, {"transpose", -48, 48}})
    if (track[key].get<long long>() < low || track[key].get<long long>() > high)
      throw SimError(where + "." + key + " must lie between " + std::to_string(low) + " and " +
                     std::to_string(high));
  track["clips"] = json::array();
  track["notes"] = json::array();
  for (const char* list : {"clips", "notes"}) {
    if (!in.contains(list) || in[list].is_null()) continue;
    if (!in[list].is_array()) throw SimError(where + "." + list + " must be an array");
    for (std::size_t i = 0; i < in[list].size(); ++i) {
      std::string at = where + "." + list + "[" + std::to_string(i) + "]";
      track[list].push_back(list[0] == 'c' ? normalizedClip(in[list][i], at)
                                           : normalizedNote(in[list][i], at));
    }
  }
  return track;
}

}  // namespace

json normalizedDocument(const json& in) {
  if (!in.is_object()) throw SimError("the document must be a JSON object");
  json out = emptyDocument();
  member(out, in, "sampleRate", 48000, Kind::integer, "document");
  int rate = out["sampleRate"];
  if (rate < 8000 || rate > 384000) throw SimError("document.sampleRate must lie between 8000 and 384000");
  member(out, in, "masterGainDB", 0.0, Kind::number, "document");
  if (in.contains("tempo") && !in["tempo"].is_null()) {
    if (!in["tempo"].is_object()) throw SimError("document.tempo must be an object");
    member(out["tempo"], in["tempo"], "bpm", 120.0, Kind::number, "document.tempo");
    member(out["tempo"], in["tempo"], "numerator", 4, Kind::integer, "document.tempo");
    member(out["tempo"], in["tempo"], "denominator", 4, Kind::integer, "document.tempo");
    double bpm = out["tempo"]["bpm"];
    if (bpm < 1 || bpm > 999) throw SimError("document.tempo.bpm must lie between 1 and 999");
  }
  for (const char* list : {"tracks", "markers"}) {
    if (!in.contains(list) || in[list].is_null()) continue;
    if (!in[list].is_array()) throw SimError(std::string("document.") + list + " must be an array");
    for (std::size_t i = 0; i < in[list].size(); ++i) {
      std::string where = std::string("document.") + list + "[" + std::to_string(i) + "]";
      if (list[0] == 't') {
        out["tracks"].push_back(normalizedTrack(in[list][i], where, i));
      } else {
        const json& from = in[list][i];
        if (!from.is_object()) throw SimError(where + " must be an object");
        json marker = json::object();
        member(marker, from, "id", newUuid(), Kind::string, where);
        member(marker, from, "name", "Marker " + std::to_string(i + 1), Kind::string, where);
        member(marker, from, "time", 0.0, Kind::number, where);
        if (marker["time"].get<double>() < 0 || marker["time"].get<double>() > kMaxTime)
          throw SimError(where + ".time lies outside the timeline");
        out["markers"].push_back(marker);
      }
    }
  }
  return out;
}

double clipEnd(const json& clip) {
  return clip["offset"].get<double>() + clip["duration"].get<double>();
}

double projectDuration(const json& document) {
  double end = 0;
  for (const json& track : document["tracks"]) {
    for (const json& clip : track["clips"]) end = std::max(end, clipEnd(clip));
    for (const json& note : track["notes"])
      end = std::max(end, note["start"].get<double>() + note["duration"].get<double>());
  }
  return end;
}

Session::Session(int apiPort) : document_(emptyDocument()), apiPort_(apiPort) {}

void Session::commit(json next, const std::string& label) {
  undo_.push_back({label, std::move(document_)});
  if (undo_.size() > 200) undo_.erase(undo_.begin());  // bounded history: memory stays small
  redo_.clear();
  document_ = std::move(next);
  dirty_ = true;
  ++changeCount_;
}

void Session::undo() {
  if (undo_.empty()) throw SimError("nothing to undo");
  UndoStep step = std::move(undo_.back());
  undo_.pop_back();
  redo_.push_back({step.label, std::move(document_)});
  document_ = std::move(step.before);
  dirty_ = true;
  ++changeCount_;
}

void Session::redo() {
  if (redo_.empty()) throw SimError("nothing to redo");
  UndoStep step = std::move(redo_.back());
  redo_.pop_back();
  undo_.push_back({step.label, std::move(document_)});
  document_ = std::move(step.before);
  dirty_ = true;
  ++changeCount_;
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

double checkedTime(double value, const std::string& what) {
  if (!(value >= 0 && value <= kMaxTime))
    throw SimError(what + " must be a time in seconds between 0 and " + std::to_string(int(kMaxTime)));
  return value;
}

std::pair<double, double> readRange(const json& value, const std::string& what) {
  if (!value.is_array() || value.size() != 2 || !value[0].is_number() || !value[1].is_number())
    throw SimError(what + " must be an array of two numbers [start, end]");
  double start = checkedTime(value[0].get<double>(), what + "[0]");
  double end = checkedTime(value[1].get<double>(), what + "[1]");
  if (end <= start) throw SimError(what + " must end after it starts");
  return {start, end};
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

std::string show(double value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

}  // namespace tondrel::sim
