// Range operations: a stretch of time on every unlocked track copied, cut, pasted,
// deleted, cropped, silenced or faded.
#include <algorithm>

#include "editor.hpp"
#include "fades.hpp"

namespace tondrel::sim {

namespace {

// The clipboard holds, per track with material in the range, its clips and notes
// with times counted from the range's start.
void copyRange(Editor& e, double start, double end) {
  e.clipboard = json::array();
  e.clipboardLength = end - start;
  for (std::size_t t = 0; t < e.tracks().size(); ++t) {
    const json& track = e.tracks()[t];
    json entry = {{"track", t}, {"kind", track["kind"]}, {"clips", json::array()}, {"notes", json::array()}};
    for (const json& clip : track["clips"]) {
      double from = std::max(start, clip["offset"].get<double>()), to = std::min(end, clipEnd(clip));
      if (to <= from) continue;
      json part = e.piece(clip, from, to);
      part["offset"] = from - start;
      entry["clips"].push_back(part);
    }
    for (json note : track["notes"])
      if (note["start"].get<double>() >= start && note["start"].get<double>() < end) {
        note["start"] = note["start"].get<double>() - start;
        entry["notes"].push_back(note);
      }
    if (!entry["clips"].empty() || !entry["notes"].empty()) e.clipboard.push_back(entry);
  }
}

void copy(Editor& e, const json& op) {
  auto [start, end] = e.range(op);
  copyRange(e, start, end);
}

void cut(Editor& e, const json& op) {
  auto [start, end] = e.range(op);
  copyRange(e, start, end);
  e.removeRange(start, end, op.value("ripple", false));
}

// Copies of the clipboard's clips or notes, with new ids, shifted to `at` on the track.
void pasteInto(Editor& e, json& track, const json& entry, const char* list, const char* time, double at) {
  for (json item : entry[list]) {
    item["id"] = newUuid();
    item[time] = item[time].get<double>() + at;
    e.created.push_back(item["id"]);
    track[list].push_back(item);
  }
}

void paste(Editor& e, const json& op) {
  if (e.clipboard.empty()) e.fail("nothing to paste: copy or cut a range first");
  double at = e.time(op, "at", 0);
  std::size_t first = e.clipboard[0]["track"];
  std::size_t base = op.contains("track") ? e.trackIndex(op["track"]) : first;
  for (const json& entry : e.clipboard) {
    std::size_t target = base + entry["track"].get<std::size_t>() - first;
    if (target >= e.tracks().size())
      e.fail("the clipboard needs track " + std::to_string(target) + ", which does not exist");
    json& track = e.tracks()[target];
    if (track["kind"] != entry["kind"])
      e.fail("cannot paste " + entry["kind"].get<std::string>() + " material onto track " +
             std::to_string(target));
    if (op.value("ripple", false)) {
      for (std::size_t c = 0; c < track["clips"].size(); ++c)
        if (!e.splitClip(track, c, at).is_null()) ++c;
      e.rippleFrom(track, at, -e.clipboardLength);
    }
    pasteInto(e, track, entry, "clips", "offset", at);
    pasteInto(e, track, entry, "notes", "start", at);
    sortClips(track);
    sortNotes(track);
  }
}

void remove(Editor& e, const json& op) {
  auto [start, end] = e.range(op);
  e.removeRange(start, end, op.value("ripple", false));
}

void crop(Editor& e, const json& op) {
  auto [start, end] = e.range(op);
  json kept = json::array();
  for (const json& marker : e.doc["markers"])
    if (marker["time"].get<double>() >= start && marker["time"].get<double>() <= end) kept.push_back(marker);
  e.doc["markers"] = kept;
  e.removeRange(end, kMaxTime, false);
  if (start > 0) e.removeRange(0, start, true);
}

void silence(Editor& e, const json& op) {
  auto [start, end] = e.range(op);
  e.removeRange(start, end, false);
}

void fadeRange(Editor& e, const json& op, bool in) {
  auto [start, end] = e.range(op);
  std::string shape = e.shape(op, "shape", std::string(kDefaultFade.name));
  bool any = false;
  for (json& track : e.tracks()) {
    if (track["locked"].get<bool>()) continue;
    for (json& clip : track["clips"]) {
      double from = clip["offset"], to = clipEnd(clip), duration = clip["duration"];
      if (in && from >= start && from < end)
        clip["fadeIn"] = std::min(duration, end - from);
      else if (!in && to > start && to <= end)
        clip["fadeOut"] = std::min(duration, to - start);
      else
        continue;
      clip["fadeShape"] = shape;
      any = true;
    }
  }
  if (!any) e.fail(std::string("no clip ") + (in ? "starts" : "ends") + " inside the range");
}

constexpr Operation kOperations[] = {
    {"range.cut", cut},
    {"range.copy", copy},
    {"range.paste", paste},
    {"range.delete", remove},
    {"range.crop", crop},
    {"range.silence", silence},
    {"range.fadeIn", [](Editor& e, const json& op) { fadeRange(e, op, true); }},
    {"range.fadeOut", [](Editor& e, const json& op) { fadeRange(e, op, false); }},
};

}  // namespace

std::span<const Operation> rangeOperations() {
  return kOperations;
}

}  // namespace tondrel::sim
