// Clip and range operations: everything that cuts, moves or shapes audio on the timeline.
#include <algorithm>
#include <cmath>
#include <filesystem>

#include "audio.hpp"
#include "editor.hpp"

namespace tondrel::sim {

namespace {

std::size_t audioTrack(Editor& e, const json& op, const std::string& nameForNew) {
  if (op.contains("track") && !op["track"].is_null()) {
    std::size_t index = e.trackIndex(op["track"]);
    if (e.tracks()[index]["kind"] != "audio")
      e.fail("track " + std::to_string(index) + " is a MIDI track, not audio");
    return index;
  }
  auto selected = e.session.selectedTrack;
  if (selected && std::size_t(*selected) < e.tracks().size() &&
      e.tracks()[std::size_t(*selected)]["kind"] == "audio")
    return std::size_t(*selected);
  for (std::size_t i = 0; i < e.tracks().size(); ++i)
    if (e.tracks()[i]["kind"] == "audio") return i;
  json track = normalizedDocument({{"tracks", {{{"name", nameForNew}}}}})["tracks"][0];
  e.created.push_back(track["id"]);
  e.tracks().push_back(track);
  return e.tracks().size() - 1;
}

void sortClips(json& track) {
  std::stable_sort(track["clips"].begin(), track["clips"].end(), [](const json& a, const json& b) {
    return a["offset"].get<double>() < b["offset"].get<double>();
  });
}

// Splits the clip at time `at` when it spans it; the right half gets a new id, which is returned.
json splitAt(Editor& e, json& track, std::size_t index, double at) {
  json clip = track["clips"][index];
  if (at <= clip["offset"].get<double>() + 1e-9 || at >= clipEnd(clip) - 1e-9) return nullptr;
  json right = e.piece(clip, at, clipEnd(clip));
  right["id"] = newUuid();
  track["clips"][index] = e.piece(clip, clip["offset"], at);
  track["clips"].insert(track["clips"].begin() + long(index) + 1, right);
  return right["id"];
}

double sourcePeak(const json& clip, const AudioData& audio) {
  double from = clip["sourceStart"], to = from + clip["duration"].get<double>();
  auto first = static_cast<long long>(from * audio.sampleRate),
       last = static_cast<long long>(to * audio.sampleRate);
  float peak = 0;
  for (long long i = std::max(0LL, first) * audio.channels; i < std::min(last, audio.frames) * audio.channels;
       ++i)
    peak = std::max(peak, std::abs(audio.samples[std::size_t(i)]));
  return peak;
}

}  // namespace

void addClipRangeOperations(std::map<std::string, Handler, std::less<>>& map) {
  map["clip.add"] = [](Editor& e, const json& op) {
    std::string path = e.session.resolvedPath(op["path"]);
    std::shared_ptr<const AudioData> audio;
    try {
      audio = loadAudio(path);
    } catch (const SimError& error) {
      e.fail(error.what());
    }
    double length = audio->duration();
    double sourceStart = e.number(op, "sourceStart", 0, 0, length);
    double duration = e.number(op, "duration", length - sourceStart, 0, length - sourceStart);
    if (duration <= 0) e.fail("the clip would be empty: " + path + " lasts " + show(length) + " s");
    json clip = {{"id", newUuid()},
                 {"path", path},
                 {"offset", e.time(op, "offset", 0)},
                 {"sourceStart", sourceStart},
                 {"duration", duration},
                 {"sourceDuration", length},
                 {"gainDB", e.number(op, "gainDB", 0, -96, 24)},
                 {"fadeIn", std::min(duration, e.time(op, "fadeIn", 0))},
                 {"fadeOut", std::min(duration, e.time(op, "fadeOut", 0))},
                 {"fadeShape", e.shape(op, "fadeShape", "cosine")},
                 {"reversed", false},
                 {"mute", false}};
    json& track = e.tracks()[audioTrack(e, op, std::filesystem::path(path).stem().string())];
    e.created.push_back(clip["id"]);
    track["clips"].push_back(clip);
    sortClips(track);
  };
  map["clip.trim"] = [](Editor& e, const json& op) {
    json& clip = e.clip(op["clip"]);
    double start = e.time(op, "start", clip["offset"]), end = e.time(op, "end", clipEnd(clip));
    if (end <= start) e.fail("the clip would end (" + show(end) + ") before it starts (" + show(start) + ")");
    clip = e.piece(clip, start, end, true);
  };
  map["clip.move"] = [](Editor& e, const json& op) {
    auto [t, c] = e.findClip(op["clip"]);
    json clip = e.tracks()[t]["clips"][c];
    clip["offset"] = e.time(op, "offset", 0);
    std::size_t to = op.contains("track") && !op["track"].is_null() ? audioTrack(e, op, "") : t;
    e.tracks()[t]["clips"].erase(e.tracks()[t]["clips"].begin() + long(c));
    e.tracks()[to]["clips"].push_back(clip);
    sortClips(e.tracks()[to]);
  };
  map["clip.slip"] = [](Editor& e, const json& op) {
    json& clip = e.clip(op["clip"]);
    double by = e.number(op, "by", 0, -kMaxTime, kMaxTime);
    double room = clip["sourceDuration"].get<double>() - clip["duration"].get<double>();
    clip["sourceStart"] =
        std::clamp(clip["sourceStart"].get<double>() + (clip["reversed"].get<bool>() ? -by : by), 0.0,
                   std::max(0.0, room));
  };
  map["clip.split"] = [](Editor& e, const json& op) {
    double at = e.time(op, "at", 0);
    if (op.contains("clip") && !op["clip"].is_null()) {
      auto [t, c] = e.findClip(op["clip"]);
      json right = splitAt(e, e.tracks()[t], c, at);
      if (right.is_null()) e.fail("clip " + op["clip"].dump() + " does not span " + show(at) + " s");
      e.created.push_back(right);
      return;
    }
    bool any = false;
    for (json& track : e.tracks()) {
      if (track["locked"].get<bool>()) continue;
      for (std::size_t c = 0; c < track["clips"].size(); ++c) {
        json right = splitAt(e, track, c, at);
        if (!right.is_null()) e.created.push_back(right), any = true, ++c;
      }
    }
    if (!any) e.fail("no clip spans " + show(at) + " s");
  };
  map["clip.remove"] = [](Editor& e, const json& op) {
    for (const json& id : op["clips"]) {
      auto [t, c] = e.findClip(id);
      json& track = e.tracks()[t];
      double end = clipEnd(track["clips"][c]), length = track["clips"][c]["duration"];
      track["clips"].erase(track["clips"].begin() + long(c));
      if (op.value("ripple", false)) e.rippleFrom(track, end, length);
    }
  };
  map["clip.duplicate"] = [](Editor& e, const json& op) {
    for (const json& id : op["clips"]) {
      auto [t, c] = e.findClip(id);
      json copy = e.tracks()[t]["clips"][c];
      copy["id"] = newUuid();
      copy["offset"] = clipEnd(copy);
      if (clipEnd(copy) > kMaxTime) e.fail("the copy would end past the timeline's end");
      e.created.push_back(copy["id"]);
      e.tracks()[t]["clips"].push_back(copy);
      sortClips(e.tracks()[t]);
    }
  };
  map["clip.fades"] = [](Editor& e, const json& op) {
    json& clip = e.clip(op["clip"]);
    double duration = clip["duration"];
    clip["fadeIn"] = std::min(duration, e.time(op, "fadeIn", clip["fadeIn"]));
    clip["fadeOut"] = std::min(duration, e.time(op, "fadeOut", clip["fadeOut"]));
    clip["fadeShape"] = e.shape(op, "shape", clip["fadeShape"]);
  };
  map["clip.gain"] = [](Editor& e, const json& op) {
    e.clip(op["clip"])["gainDB"] = e.number(op, "db", 0, -96, 24);
  };
  map["clip.normalize"] = [](Editor& e, const json& op) {
    json& clip = e.clip(op["clip"]);
    double target = e.number(op, "targetDB", 0, -96, 0);
    std::shared_ptr<const AudioData> audio;
    try {
      audio = loadAudio(clip["path"]);
    } catch (const SimError& error) {
      e.fail(error.what());
    }
    double peak = sourcePeak(clip, *audio);
    if (peak <= 0) e.fail("clip " + clip["id"].dump() + " is silent; there is nothing to normalize");
    clip["gainDB"] = std::clamp(target - gainToDb(peak), -96.0, 96.0);
  };
  map["clip.reverse"] = [](Editor& e, const json& op) {
    json& clip = e.clip(op["clip"]);
    clip["reversed"] = op.value("reversed", !clip["reversed"].get<bool>());
  };
  map["clip.mute"] = [](Editor& e, const json& op) { e.clip(op["clip"])["mute"] = op["mute"]; };
  map["clip.crossfade"] = [](Editor& e, const json& op) {
    auto [ta, ca] = e.findClip(op["clipA"]);
    auto [tb, cb] = e.findClip(op["clipB"]);
    if (ta != tb) e.fail("clipA and clipB lie on different tracks");
    json &a = e.tracks()[ta]["clips"][ca], &b = e.tracks()[tb]["clips"][cb];
    if (a["offset"].get<double>() > b["offset"].get<double>()) std::swap(a, b);
    double overlap = clipEnd(a) - b["offset"].get<double>();
    double length = e.number(op, "duration", overlap, 1e-3, kMaxTime);
    if (length <= 0) e.fail("the clips do not overlap; give duration to overlap them by that much");
    length = std::min({length, a["duration"].get<double>(), b["duration"].get<double>()});
    if (overlap < length) b["offset"] = std::max(0.0, clipEnd(a) - length);
    a["fadeOut"] = length;
    b["fadeIn"] = length;
    sortClips(e.tracks()[ta]);
  };

  auto copy = [](Editor& e, double start, double end) {
    e.clipboard = json::array();
    e.clipboardLength = end - start;
    for (std::size_t t = 0; t < e.tracks().size(); ++t) {
      json entry = {
          {"track", t}, {"kind", e.tracks()[t]["kind"]}, {"clips", json::array()}, {"notes", json::array()}};
      for (const json& clip : e.tracks()[t]["clips"]) {
        double from = std::max(start, clip["offset"].get<double>()), to = std::min(end, clipEnd(clip));
        if (to <= from) continue;
        json part = e.piece(clip, from, to);
        part["offset"] = from - start;
        entry["clips"].push_back(part);
      }
      for (json note : e.tracks()[t]["notes"])
        if (note["start"].get<double>() >= start && note["start"].get<double>() < end) {
          note["start"] = note["start"].get<double>() - start;
          entry["notes"].push_back(note);
        }
      if (!entry["clips"].empty() || !entry["notes"].empty()) e.clipboard.push_back(entry);
    }
  };
  map["range.copy"] = [copy](Editor& e, const json& op) {
    auto [start, end] = e.range(op);
    copy(e, start, end);
  };
  map["range.cut"] = [copy](Editor& e, const json& op) {
    auto [start, end] = e.range(op);
    copy(e, start, end);
    e.removeRange(start, end, op.value("ripple", false));
  };
  map["range.paste"] = [](Editor& e, const json& op) {
    if (e.clipboard.empty()) e.fail("nothing to paste: copy or cut a range first");
    double at = e.time(op, "at", 0);
    std::size_t first = e.clipboard[0]["track"];
    std::size_t base = op.contains("track") && !op["track"].is_null() ? e.trackIndex(op["track"]) : first;
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
          if (!splitAt(e, track, c, at).is_null()) ++c;
        e.rippleFrom(track, at, -e.clipboardLength);
      }
      for (json clip : entry["clips"]) {
        clip["id"] = newUuid();
        clip["offset"] = clip["offset"].get<double>() + at;
        e.created.push_back(clip["id"]);
        track["clips"].push_back(clip);
      }
      for (json note : entry["notes"]) {
        note["id"] = newUuid();
        note["start"] = note["start"].get<double>() + at;
        e.created.push_back(note["id"]);
        track["notes"].push_back(note);
      }
      sortClips(track);
    }
  };
  map["range.delete"] = [](Editor& e, const json& op) {
    auto [start, end] = e.range(op);
    e.removeRange(start, end, op.value("ripple", false));
  };
  map["range.crop"] = [](Editor& e, const json& op) {
    auto [start, end] = e.range(op);
    json kept = json::array();
    for (const json& marker : e.doc["markers"])
      if (marker["time"].get<double>() >= start && marker["time"].get<double>() <= end)
        kept.push_back(marker);
    e.doc["markers"] = kept;
    e.removeRange(end, kMaxTime, false);
    if (start > 0) e.removeRange(0, start, true);
  };
  map["range.silence"] = [](Editor& e, const json& op) {
    auto [start, end] = e.range(op);
    e.removeRange(start, end, false);
  };
  auto rangeFade = [](Editor& e, const json& op, bool in) {
    auto [start, end] = e.range(op);
    std::string shape = e.shape(op, "shape", "cosine");
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
  };
  map["range.fadeIn"] = [rangeFade](Editor& e, const json& op) { rangeFade(e, op, true); };
  map["range.fadeOut"] = [rangeFade](Editor& e, const json& op) { rangeFade(e, op, false); };
}

}  // namespace tondrel::sim
