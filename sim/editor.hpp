// What the edit operations share: the working copy, lookups by index or UUID,
// and clip arithmetic on the timeline.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

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
  double number(const json& op, const char* key, double fallback, Limits limits) {
    return number(op, key, fallback, limits.low, limits.high);
  }
  long long integer(const json& op, const char* key, long long fallback, long long low, long long high);
  long long integer(const json& op, const char* key, long long fallback, Limits limits) {
    return integer(op, key, fallback, static_cast<long long>(limits.low),
                   static_cast<long long>(limits.high));
  }
  std::string shape(const json& op, const char* key, const std::string& fallback);  // a fade shape's name
  std::pair<double, double> range(const json& op);
  double beat() const { return 60.0 / doc["tempo"]["bpm"].get<double>(); }

  // The part of clip that covers [from, to] on the timeline, which may reach past the
  // clip's ends as far as its source allows. Fades survive only on ends that stay.
  json piece(const json& clip, double from, double to, bool keepFades = false);
  // Takes [start, end] out of every unlocked track; ripple closes the gap.
  void removeRange(double start, double end, bool ripple);
  void rippleFrom(json& track, double from, double by);  // shifts what starts at or after from
  // Splits the track's clip at `at` when it spans it; answers the right half's new id, else null.
  json splitClip(json& track, std::size_t index, double at);
  // The track an op names, else the selected track of that kind, else the first of that kind.
  std::optional<std::size_t> trackOfKind(const json& op, const char* kind);
};

// The operations of one family, each bound once to its name ("clip.trim").
struct Operation {
  std::string_view name;
  void (*apply)(Editor&, const json& op);
};
std::span<const Operation> trackOperations();
std::span<const Operation> noteOperations();
std::span<const Operation> clipOperations();
std::span<const Operation> rangeOperations();
std::span<const Operation> projectOperations();  // tempo, markers, master gain

// Keeps a list in the order of a time member; a track's clips or notes in time order.
void sortBy(json& list, const char* key);
void sortClips(json& track);
void sortNotes(json& track);

}  // namespace tondrel::sim
