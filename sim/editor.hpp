// What the edit operations share: the working copy, lookups by index or UUID,
// and clip arithmetic on the timeline.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "session.hpp"

namespace tondrel::sim {

struct Editor {
  Session& session;
  json doc;        // the working copy
  json clipboard;  // range.copy's result, committed with the batch
  double clipboardLength;
  json created = json::array();
  std::string at;  // "ops[3] (clip.trim)": the prefix of every message

  [[noreturn]] void fail(const std::string& message) const { throw SimError(at + ": " + message); }

  json& tracks() { return doc["tracks"]; }
  std::size_t trackIndex(const json& reference);  // i|uuid
  json& track(const json& reference) { return tracks()[trackIndex(reference)]; }
  // The track a clip or note lives on, and its index there.
  std::pair<std::size_t, std::size_t> findClip(const json& id);
  std::pair<std::size_t, std::size_t> findNote(const json& id);
  json& clip(const json& id) {
    auto [t, c] = findClip(id);
    return tracks()[t]["clips"][c];
  }
  json& note(const json& id) {
    auto [t, n] = findNote(id);
    return tracks()[t]["notes"][n];
  }

  double time(const json& op, const char* key, double fallback);  // checked to lie on the timeline
  double number(const json& op, const char* key, double fallback, double low, double high);
  long long integer(const json& op, const char* key, long long fallback, long long low, long long high);
  std::string shape(const json& op, const char* key, const std::string& fallback);
  std::pair<double, double> range(const json& op);
  double beat() const { return 60.0 / doc["tempo"]["bpm"].get<double>(); }

  // The part of clip that covers [from, to] on the timeline, which may reach past the
  // clip's ends as far as its source allows. Fades survive only on ends that stay.
  json piece(const json& clip, double from, double to, bool keepFades = false);
  // Takes [start, end] out of every unlocked track; ripple closes the gap.
  void removeRange(double start, double end, bool ripple);
  void rippleFrom(json& track, double from, double by);  // shifts what starts at or after from
};

using Handler = std::function<void(Editor&, const json&)>;
void addTrackNoteOperations(std::map<std::string, Handler, std::less<>>& handlers);
void addClipRangeOperations(std::map<std::string, Handler, std::less<>>& handlers);

}  // namespace tondrel::sim
