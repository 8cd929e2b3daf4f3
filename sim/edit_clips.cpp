// Clip operations: one clip, or a few named ones, placed, cut, moved and shaped on the timeline.
#include <algorithm>
#include <cmath>
#include <filesystem>

#include "audio.hpp"
#include "editor.hpp"
#include "fades.hpp"

namespace tondrel::sim {

namespace {

// The track a clip goes on; without one an audio track is made, named after the clip's file.
std::size_t audioTrack(Editor& e, const json& op, const std::string& nameForNew) {
  if (auto index = e.trackOfKind(op, "audio")) return *index;
  json track = newTrack({{"name", nameForNew}});
  e.created.push_back(track["id"]);
  e.tracks().push_back(track);
  return e.tracks().size() - 1;
}

std::shared_ptr<const AudioData> source(Editor& e, const std::string& path) {
  try {
    return loadAudio(path);
  } catch (const SimError& error) {
    e.fail(error.what());
  }
}

void add(Editor& e, const json& op) {
  std::string path = e.session.resolvedPath(op["path"]);
  double length = source(e, path)->duration();
  double sourceStart = e.number(op, "sourceStart", 0, 0, length);
  double duration = e.number(op, "duration", length - sourceStart, 0, length - sourceStart);
  if (duration <= 0) e.fail("the clip would be empty: " + path + " lasts " + show(length) + " s");
  json clip = newClip({{"path", path},
                       {"offset", e.time(op, "offset", 0)},
                       {"sourceStart", sourceStart},
                       {"duration", duration},
                       {"sourceDuration", length},
                       {"gainDB", e.number(op, "gainDB", 0, kGainDB)},
                       {"fadeIn", std::min(duration, e.time(op, "fadeIn", 0))},
                       {"fadeOut", std::min(duration, e.time(op, "fadeOut", 0))},
                       {"fadeShape", e.shape(op, "fadeShape", std::string(kDefaultFade.name))}});
  json& track = e.tracks()[audioTrack(e, op, std::filesystem::path(path).stem().string())];
  e.created.push_back(clip["id"]);
  track["clips"].push_back(clip);
  sortClips(track);
}

void trim(Editor& e, const json& op) {
  json& clip = e.clip(op["clip"]);
  double start = e.time(op, "start", clip["offset"]), end = e.time(op, "end", clipEnd(clip));
  if (end <= start) e.fail("the clip would end (" + show(end) + ") before it starts (" + show(start) + ")");
  clip = e.piece(clip, start, end, true);
}

void move(Editor& e, const json& op) {
  auto [t, c] = e.findClip(op["clip"]);
  json clip = e.tracks()[t]["clips"][c];
  clip["offset"] = e.time(op, "offset", 0);
  std::size_t to = op.contains("track") ? audioTrack(e, op, "") : t;
  e.tracks()[t]["clips"].erase(e.tracks()[t]["clips"].begin() + long(c));
  e.tracks()[to]["clips"].push_back(clip);
  sortClips(e.tracks()[to]);
}

void slip(Editor& e, const json& op) {
  json& clip = e.clip(op["clip"]);
  double by = e.number(op, "by", 0, -kMaxTime, kMaxTime);
  double room = clip["sourceDuration"].get<double>() - clip["duration"].get<double>();
  clip["sourceStart"] =
      std::clamp(clip["sourceStart"].get<double>() + (clip["reversed"].get<bool>() ? -by : by), 0.0,
                 std::max(0.0, room));
}

void split(Editor& e, const json& op) {
  double at = e.time(op, "at", 0);
  if (op.contains("clip")) {
    auto [t, c] = e.findClip(op["clip"]);
    json right = e.splitClip(e.tracks()[t], c, at);
    if (right.is_null()) e.fail("clip " + op["clip"].dump() + " does not span " + show(at) + " s");
    e.created.push_back(right);
    return;
  }
  bool any = false;
  for (json& track : e.tracks()) {
    if (track["locked"].get<bool>()) continue;
    for (std::size_t c = 0; c < track["clips"].size(); ++c) {
      json right = e.splitClip(track, c, at);
      if (!right.is_null()) e.created.push_back(right), any = true, ++c;
    }
  }
  if (!any) e.fail("no clip spans " + show(at) + " s");
}

void remove(Editor& e, const json& op) {
  for (const json& id : op["clips"]) {
    auto [t, c] = e.findClip(id);
    json& track = e.tracks()[t];
    double end = clipEnd(track["clips"][c]), length = track["clips"][c]["duration"];
    track["clips"].erase(track["clips"].begin() + long(c));
    if (op.value("ripple", false)) e.rippleFrom(track, end, length);
  }
}

void duplicate(Editor& e, const json& op) {
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
}

void fades(Editor& e, const json& op) {
  json& clip = e.clip(op["clip"]);
  double duration = clip["duration"];
  clip["fadeIn"] = std::min(duration, e.time(op, "fadeIn", clip["fadeIn"]));
  clip["fadeOut"] = std::min(duration, e.time(op, "fadeOut", clip["fadeOut"]));
  clip["fadeShape"] = e.shape(op, "shape", clip["fadeShape"]);
}

void gain(Editor& e, const json& op) {
  e.clip(op["clip"])["gainDB"] = e.number(op, "db", 0, kGainDB);
}

double sourcePeak(const json& clip, const AudioData& audio) {
  double from = clip["sourceStart"], to = from + clip["duration"].get<double>();
  auto first = std::max(0LL, static_cast<long long>(from * audio.sampleRate)),
       last = std::min(audio.frames, static_cast<long long>(to * audio.sampleRate));
  float peak = 0;
  for (long long i = first * audio.channels; i < last * audio.channels; ++i)
    peak = std::max(peak, std::abs(audio.samples[std::size_t(i)]));
  return peak;
}

void normalize(Editor& e, const json& op) {
  json& clip = e.clip(op["clip"]);
  double target = e.number(op, "targetDB", 0, -96, 0);
  double peak = sourcePeak(clip, *source(e, clip["path"]));
  if (peak <= 0) e.fail("clip " + clip["id"].dump() + " is silent; there is nothing to normalize");
  clip["gainDB"] = std::clamp(target - gainToDb(peak), -96.0, 96.0);
}

void reverse(Editor& e, const json& op) {
  json& clip = e.clip(op["clip"]);
  clip["reversed"] = op.value("reversed", !clip["reversed"].get<bool>());
}

void mute(Editor& e, const json& op) {
  e.clip(op["clip"])["mute"] = op["mute"];
}

void crossfade(Editor& e, const json& op) {
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
}

constexpr Operation kOperations[] = {
    {"clip.add", add},
    {"clip.trim", trim},
    {"clip.move", move},
    {"clip.slip", slip},
    {"clip.split", split},
    {"clip.remove", remove},
    {"clip.duplicate", duplicate},
    {"clip.fades", fades},
    {"clip.gain", gain},
    {"clip.normalize", normalize},
    {"clip.reverse", reverse},
    {"clip.mute", mute},
    {"clip.crossfade", crossfade},
};

}  // namespace

std::span<const Operation> clipOperations() {
  return kOperations;
}

}  // namespace tondrel::sim
