// The Editor's lookups, checked readers and the timeline arithmetic the operations share.
#include "editor.hpp"

#include <algorithm>
#include <cmath>

#include "fades.hpp"

namespace tondrel::sim {

std::size_t Editor::trackIndex(const json& reference) {
  if (reference.is_string()) {
    for (std::size_t i = 0; i < tracks().size(); ++i)
      if (tracks()[i]["id"] == reference) return i;
    fail("no track with id " + reference.dump());
  }
  double index = reference.get<double>();
  if (index < 0 || index >= double(tracks().size()))
    fail("no track " + reference.dump() + ": the project has " + std::to_string(tracks().size()) + " tracks");
  return std::size_t(index);
}

std::pair<std::size_t, std::size_t> Editor::findClip(const json& id) {
  for (std::size_t t = 0; t < tracks().size(); ++t)
    for (std::size_t c = 0; c < tracks()[t]["clips"].size(); ++c)
      if (tracks()[t]["clips"][c]["id"] == id) return {t, c};
  fail("no clip with id " + id.dump());
}

std::pair<std::size_t, std::size_t> Editor::findNote(const json& id) {
  for (std::size_t t = 0; t < tracks().size(); ++t)
    for (std::size_t n = 0; n < tracks()[t]["notes"].size(); ++n)
      if (tracks()[t]["notes"][n]["id"] == id) return {t, n};
  fail("no note with id " + id.dump());
}

double Editor::number(const json& op, const char* key, double fallback, double low, double high) {
  if (!op.contains(key) || op[key].is_null()) return fallback;
  double value = op[key].get<double>();
  if (!(value >= low && value <= high))
    fail(std::string(key) + " must lie between " + show(low) + " and " + show(high) + ", got " +
         op[key].dump());
  return value;
}

long long Editor::integer(const json& op, const char* key, long long fallback, long long low,
                          long long high) {
  return static_cast<long long>(number(op, key, double(fallback), double(low), double(high)));
}

double Editor::time(const json& op, const char* key, double fallback) {
  return number(op, key, fallback, 0, kMaxTime);
}

std::string Editor::shape(const json& op, const char* key, const std::string& fallback) {
  if (!op.contains(key) || op[key].is_null()) return fallback;
  std::string value = op[key];
  if (!findFadeShape(value))
    fail(std::string(key) + " must be " + fadeShapeNames() + ", got \"" + value + "\"");
  return value;
}

std::pair<double, double> Editor::range(const json& op) {
  double start = time(op, "start", 0), end = time(op, "end", 0);
  if (end <= start) fail("end (" + show(end) + ") must come after start (" + show(start) + ")");
  return {start, end};
}

json Editor::piece(const json& clip, double from, double to, bool keepFades) {
  const double offset = clip["offset"], duration = clip["duration"], sourceStart = clip["sourceStart"];
  const double sourceDuration = clip["sourceDuration"];
  const double a = from - offset, b = to - offset;
  double start = clip["reversed"].get<bool>() ? sourceStart + duration - b : sourceStart + a;
  constexpr double slack = 1e-9;
  if (start < -slack || start + (b - a) > sourceDuration + slack)
    fail("the source of clip " + clip["id"].dump() + " covers only " + show(sourceDuration) +
         " s; the clip cannot reach from " + show(from) + " to " + show(to));
  json out = clip;
  out["offset"] = from;
  out["duration"] = b - a;
  out["sourceStart"] = std::max(0.0, start);
  double fadeIn = clip["fadeIn"], fadeOut = clip["fadeOut"];
  out["fadeIn"] = keepFades || std::abs(a) < slack ? std::min(fadeIn, b - a) : 0.0;
  out["fadeOut"] = keepFades || std::abs(b - duration) < slack ? std::min(fadeOut, b - a) : 0.0;
  return out;
}

void Editor::rippleFrom(json& track, double from, double by) {
  for (json& clip : track["clips"])
    if (clip["offset"].get<double>() >= from - 1e-9)
      clip["offset"] = std::max(0.0, clip["offset"].get<double>() - by);
  for (json& note : track["notes"])
    if (note["start"].get<double>() >= from - 1e-9)
      note["start"] = std::max(0.0, note["start"].get<double>() - by);
}

void Editor::removeRange(double start, double end, bool ripple) {
  for (json& track : tracks()) {
    if (track["locked"].get<bool>()) continue;
    json clips = json::array();
    for (const json& clip : track["clips"]) {
      double from = clip["offset"], to = clipEnd(clip);
      if (to <= start || from >= end) {
        clips.push_back(clip);
        continue;
      }
      if (from < start) clips.push_back(piece(clip, from, start));
      if (to > end) {
        json right = piece(clip, end, to);
        if (from < start) right["id"] = newUuid();
        clips.push_back(right);
      }
    }
    track["clips"] = clips;
    json notes = json::array();
    for (const json& note : track["notes"])
      if (note["start"].get<double>() < start || note["start"].get<double>() >= end) notes.push_back(note);
    track["notes"] = notes;
    if (ripple) rippleFrom(track, end, end - start);
  }
  if (ripple)
    for (json& marker : doc["markers"]) {
      double t = marker["time"];
      if (t >= end)
        marker["time"] = t - (end - start);
      else if (t > start)
        marker["time"] = start;
    }
}

json Editor::splitClip(json& track, std::size_t index, double at) {
  json clip = track["clips"][index];
  if (at <= clip["offset"].get<double>() + 1e-9 || at >= clipEnd(clip) - 1e-9) return nullptr;
  json right = piece(clip, at, clipEnd(clip));
  right["id"] = newUuid();
  track["clips"][index] = piece(clip, clip["offset"], at);
  track["clips"].insert(track["clips"].begin() + long(index) + 1, right);
  return right["id"];
}

std::optional<std::size_t> Editor::trackOfKind(const json& op, const char* kind) {
  if (op.contains("track")) {
    std::size_t index = trackIndex(op["track"]);
    if (tracks()[index]["kind"] != kind)
      fail("track " + std::to_string(index) + " is not " +
           (kind == std::string_view("midi") ? "a MIDI" : "an audio") + " track");
    return index;
  }
  auto selected = session.selectedTrack;
  if (selected && std::size_t(*selected) < tracks().size() &&
      tracks()[std::size_t(*selected)]["kind"] == kind)
    return std::size_t(*selected);
  for (std::size_t i = 0; i < tracks().size(); ++i)
    if (tracks()[i]["kind"] == kind) return i;
  return std::nullopt;
}

void sortBy(json& list, const char* key) {
  std::stable_sort(list.begin(), list.end(), [key](const json& a, const json& b) {
    return a[key].get<double>() < b[key].get<double>();
  });
}

void sortClips(json& track) {
  sortBy(track["clips"], "offset");
}

void sortNotes(json& track) {
  sortBy(track["notes"], "start");
}

}  // namespace tondrel::sim
