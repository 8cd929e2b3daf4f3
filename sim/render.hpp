// The mixdown: clips with their gains and fades, MIDI notes through a plain
// sine voice, track gain, pan, mute and solo, and the master gain.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tondrel::sim {

struct Mixer {
  // onlyTrack: render that track alone, as a stem, whatever mute and solo say.
  Mixer(const nlohmann::json& document, int sampleRate, std::optional<std::size_t> onlyTrack = {});
  // Adds `frames` stereo frames starting at `start` seconds into out (interleaved, zeroed by the caller).
  void render(double start, std::size_t frames, float* out) const;

 private:
  struct Plan;
  std::vector<std::shared_ptr<const Plan>> tracks_;
  int rate_;
  float master_;
};

// Writes the export the request asks for and answers what was written.
nlohmann::json exportAudio(const nlohmann::json& document, const nlohmann::json& request);

// Renders one MIDI track to a 48 kHz WAV file at path; answers its length in seconds.
double bounceTrack(const nlohmann::json& document, std::size_t track, const std::string& path);

}  // namespace tondrel::sim
