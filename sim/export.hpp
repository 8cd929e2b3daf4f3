// Audio files written from the mix: exports in the formats libsndfile can write, and bounces.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace tondrel::sim {

// Writes the export the request asks for and answers what was written.
nlohmann::json exportAudio(const nlohmann::json& document, const nlohmann::json& request);

// Renders one MIDI track to a 48 kHz WAV file at path; answers its length in seconds.
double bounceTrack(const nlohmann::json& document, std::size_t track, const std::string& path);

}  // namespace tondrel::sim
