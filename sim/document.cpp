#include "document.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <sstream>

#include "fades.hpp"

namespace tondrel::sim {

namespace {

std::mt19937_64& idGenerator() {
  static std::mt19937_64 generator{std::random_device{}()};
  return generator;
}

}  // namespace

void seedIds(std::uint64_t seed) {
  idGenerator().seed(seed);
}

std::string newUuid() {
  std::uint64_t high = idGenerator()(), low = idGenerator()();
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
          {"sampleRate", kDefaultSampleRate},
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

void within(const json& object, const char* key, Limits limits, const std::string& where) {
  double value = object[key].get<double>();
  if (!(value >= limits.low && value <= limits.high))
    throw SimError(where + "." + key + " must lie between " + show(limits.low) + " and " + show(limits.high));
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
  member(clip, in, "fadeShape", kDefaultFade.name, Kind::string, where);
  member(clip, in, "reversed", false, Kind::boolean, where);
  member(clip, in, "mute", false, Kind::boolean, where);
  for (const char* key : {"offset", "sourceStart", "duration", "fadeIn", "fadeOut"})
    within(clip, key, {0, kMaxTime}, where);
  if (!findFadeShape(clip["fadeShape"].get<std::string>()))
    throw SimError(where + ".fadeShape must be " + fadeShapeNames());
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
  within(note, "pitch", kPitch, where);
  within(note, "velocity", kVelocity, where);
  within(note, "start", {0, kMaxTime}, where);
  within(note, "duration", {0, kMaxTime}, where);
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
  within(track, "program", kProgram, where);
  within(track, "channel", kChannel, where);
  within(track, "transpose", kTranspose, where);
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

json normalizedMarker(const json& in, const std::string& where, std::size_t index) {
  if (!in.is_object()) throw SimError(where + " must be an object");
  json marker = json::object();
  member(marker, in, "id", newUuid(), Kind::string, where);
  member(marker, in, "name", "Marker " + std::to_string(index + 1), Kind::string, where);
  member(marker, in, "time", 0.0, Kind::number, where);
  within(marker, "time", {0, kMaxTime}, where);
  return marker;
}

}  // namespace

json normalizedDocument(const json& in) {
  if (!in.is_object()) throw SimError("the document must be a JSON object");
  json out = emptyDocument();
  member(out, in, "sampleRate", kDefaultSampleRate, Kind::integer, "document");
  within(out, "sampleRate", {8000, 384000}, "document");
  member(out, in, "masterGainDB", 0.0, Kind::number, "document");
  if (in.contains("tempo") && !in["tempo"].is_null()) {
    if (!in["tempo"].is_object()) throw SimError("document.tempo must be an object");
    member(out["tempo"], in["tempo"], "bpm", 120.0, Kind::number, "document.tempo");
    member(out["tempo"], in["tempo"], "numerator", 4, Kind::integer, "document.tempo");
    member(out["tempo"], in["tempo"], "denominator", 4, Kind::integer, "document.tempo");
    within(out["tempo"], "bpm", {1, 999}, "document.tempo");
  }
  for (const char* list : {"tracks", "markers"}) {
    if (!in.contains(list) || in[list].is_null()) continue;
    if (!in[list].is_array()) throw SimError(std::string("document.") + list + " must be an array");
    for (std::size_t i = 0; i < in[list].size(); ++i) {
      std::string where = std::string("document.") + list + "[" + std::to_string(i) + "]";
      out[list].push_back(list[0] == 't' ? normalizedTrack(in[list][i], where, i)
                                         : normalizedMarker(in[list][i], where, i));
    }
  }
  return out;
}

json newTrack(const json& members) {
  return normalizedTrack(members, "track", 0);
}

json newClip(const json& members) {
  return normalizedClip(members, "clip");
}

json newNote(const json& members) {
  return normalizedNote(members, "note");
}

double clipEnd(const json& clip) {
  return clip["offset"].get<double>() + clip["duration"].get<double>();
}

double noteEnd(const json& note) {
  return note["start"].get<double>() + note["duration"].get<double>();
}

double projectDuration(const json& document) {
  double end = 0;
  for (const json& track : document["tracks"]) {
    for (const json& clip : track["clips"]) end = std::max(end, clipEnd(clip));
    for (const json& note : track["notes"]) end = std::max(end, noteEnd(note));
  }
  return end;
}

double checkedTime(double value, const std::string& what) {
  if (!(value >= 0 && value <= kMaxTime))
    throw SimError(what + " must be a time in seconds between 0 and " + show(kMaxTime));
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

void checkDepth(const std::string& text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > 64) throw SimError("the JSON is nested more than 64 levels deep");
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
}

std::string show(double value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

}  // namespace tondrel::sim
