// Audio files through libsndfile: decoded sources, the analyses an agent asks
// for (waveform envelope, silent intervals), and the test tone of the demo.
#pragma once

#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tondrel::sim {

struct AudioData {
  int sampleRate = 0;
  int channels = 0;
  long long frames = 0;
  std::vector<float> samples;  // interleaved
  double duration() const { return sampleRate ? double(frames) / sampleRate : 0; }
  // Sample of channel (clamped to what the file has) at a fractional frame, linearly interpolated.
  float at(int channel, double frame) const;
};

// Decodes a file once and keeps it while it is unchanged on disk. Throws SimError
// with libsndfile's reason when the file cannot be read as audio.
std::shared_ptr<const AudioData> loadAudio(const std::string& path);

// Peak and RMS per bin over the whole file, the loudest channel counting.
nlohmann::json waveform(const std::string& path, int bins);

// Intervals whose level stays under thresholdDB for at least minDuration seconds.
nlohmann::json silences(const std::string& path, double thresholdDB, double minDuration);

// Half-second-granular test material: tone, silence, quieter tone, silence.
void writeTestTone(const std::string& path);

inline double dbToGain(double db) {
  return std::pow(10.0, db / 20.0);
}
double gainToDb(double gain);

}  // namespace tondrel::sim
