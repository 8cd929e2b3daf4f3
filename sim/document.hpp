// The project document: its shape, its defaults, the ranges its values keep to,
// and the ids of what it holds. Everything the simulator changes is one of these.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

namespace tondrel::sim {

using nlohmann::json;

// A request the editor refuses; the message is what the agent reads.
struct SimError : std::runtime_error {
  int status;
  explicit SimError(const std::string& message, int status = 400)
      : std::runtime_error(message), status(status) {}
};

// Longest time anything may reach: keeps renders and drawings finite whatever an agent asks.
inline constexpr double kMaxTime = 24 * 3600.0;
inline constexpr int kDefaultSampleRate = 48000;

// What a value may be, wherever it is set: by an edit or in a document put or opened.
struct Limits {
  double low, high;
};
inline constexpr Limits kGainDB{-96, 24}, kPan{-1, 1}, kPitch{0, 127}, kVelocity{1, 127}, kProgram{0, 127},
    kChannel{0, 15}, kTranspose{-48, 48};

// A version-4 UUID. seedIds makes the ones that follow the same on every run with that seed.
std::string newUuid();
void seedIds(std::uint64_t seed);

// A fresh, empty project.
json emptyDocument();

// Fills in every member a track, clip, note or marker is expected to have and
// gives ids to whatever lacks one, so that the rest of the code can rely on them.
// Throws SimError for shapes it cannot make sense of.
json normalizedDocument(const json& document);
// One track, clip or note with the members given and defaults for the rest.
json newTrack(const json& members);
json newClip(const json& members);
json newNote(const json& members);

double clipEnd(const json& clip);
double noteEnd(const json& note);
double projectDuration(const json& document);

// Reading helpers shared by the handlers: a time or a range [start, end] out of JSON, checked.
double checkedTime(double value, const std::string& what);
std::pair<double, double> readRange(const json& value, const std::string& what);

// Copying a JSON value recurses once per level; nothing the editor reads is more than a few
// levels deep, so deeper text is refused before it is parsed.
void checkDepth(const std::string& text);

// A time or level as a person writes it: 2, 0.5, -1.25.
std::string show(double value);

}  // namespace tondrel::sim
