// The mixdown: clips with their gains and fades, MIDI notes through a plain
// sine voice, track gain, pan, mute and solo, and the master gain.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

namespace tondrel::sim {

class Mixer {
 public:
  // onlyTrack: render that track alone, as a stem, whatever mute and solo say.
  Mixer(const nlohmann::json& document, int sampleRate, std::optional<std::size_t> onlyTrack = {});
  // Adds `frames` stereo frames starting at `start` seconds into out (interleaved, zeroed by the caller).
  void render(double start, std::size_t frames, float* out) const;

 private:
  struct Plan;
  void renderClips(const Plan& track, double start, std::size_t frames, float* out) const;
  void renderNotes(const Plan& track, double start, std::size_t frames, float* out) const;
  std::vector<std::shared_ptr<const Plan>> tracks_;
  int rate_;
  float master_;
};

}  // namespace tondrel::sim
