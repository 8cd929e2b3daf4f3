#include "audio.hpp"

#include <sndfile.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>

#include "document.hpp"

namespace tondrel::sim {

namespace {

constexpr long long kMaxSamples = 1LL << 28;  // 1 GiB of floats: larger sources are refused

struct Cached {
  std::shared_ptr<const AudioData> audio;
  long long mtime, size;
};

double rounded(double value) {
  return std::round(value * 1e5) / 1e5;
}

}  // namespace

double gainToDb(double gain) {
  return gain > 1e-10 ? 20 * std::log10(gain) : -200.0;
}

float AudioData::at(int channel, double frame) const {
  if (frames == 0 || !(frame >= 0 && frame <= double(frames - 1))) return 0;
  int c = std::min(channel, channels - 1);
  auto i = static_cast<long long>(frame);
  float a = samples[std::size_t(i * channels + c)];
  if (i + 1 >= frames) return a;
  float b = samples[std::size_t((i + 1) * channels + c)];
  return a + float(frame - double(i)) * (b - a);
}

std::shared_ptr<const AudioData> loadAudio(const std::string& path) {
  static std::map<std::string, Cached> cache;
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    throw SimError("no audio file at " + path);
  auto found = cache.find(path);
  if (found != cache.end() && found->second.mtime == info.st_mtime && found->second.size == info.st_size)
    return found->second.audio;

  SF_INFO format{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &format);
  if (!file) throw SimError("cannot read " + path + " as audio: " + sf_strerror(nullptr));
  auto audio = std::make_shared<AudioData>();
  audio->sampleRate = format.samplerate;
  audio->channels = format.channels;
  if (format.channels < 1 || format.samplerate < 1 || format.frames < 0 ||
      format.frames > kMaxSamples / std::max(1, format.channels)) {
    sf_close(file);
    throw SimError(path + " is too long or malformed for the simulator");
  }
  audio->samples.resize(std::size_t(format.frames * format.channels));
  audio->frames = sf_readf_float(file, audio->samples.data(), format.frames);
  audio->samples.resize(std::size_t(audio->frames * format.channels));
  sf_close(file);
  if (cache.size() > 64) cache.clear();
  cache[path] = {audio, static_cast<long long>(info.st_mtime), static_cast<long long>(info.st_size)};
  return audio;
}

nlohmann::json waveform(const std::string& path, int bins) {
  if (bins < 1 || bins > 100000) throw SimError("bins must lie between 1 and 100000");
  auto audio = loadAudio(path);
  nlohmann::json peaks = nlohmann::json::array(), rms = nlohmann::json::array();
  for (int bin = 0; bin < bins; ++bin) {
    long long from = audio->frames * bin / bins, to = audio->frames * (bin + 1) / bins;
    double peak = 0, sum = 0;
    for (long long frame = from; frame < to; ++frame) {
      double loudest = 0;
      for (int c = 0; c < audio->channels; ++c)
        loudest =
            std::max(loudest, double(std::abs(audio->samples[std::size_t(frame * audio->channels + c)])));
      peak = std::max(peak, loudest);
      sum += loudest * loudest;
    }
    peaks.push_back(rounded(peak));
    rms.push_back(rounded(to > from ? std::sqrt(sum / double(to - from)) : 0));
  }
  return {{"path", path},
          {"sampleRate", audio->sampleRate},
          {"channels", audio->channels},
          {"frames", audio->frames},
          {"duration", audio->duration()},
          {"bins", bins},
          {"binDuration", audio->duration() / bins},
          {"peak", peaks},
          {"rms", rms}};
}

nlohmann::json silences(const std::string& path, double thresholdDB, double minDuration) {
  if (!(thresholdDB <= 0 && thresholdDB >= -200)) throw SimError("thresholdDB must lie between -200 and 0");
  if (!(minDuration >= 0 && minDuration <= kMaxTime))
    throw SimError("minDuration must be a non-negative time");
  auto audio = loadAudio(path);
  // Windows of 5 ms: fine enough to cut on, coarse enough that one zero crossing is no silence.
  const long long window = std::max(1, audio->sampleRate / 200);
  const double threshold = dbToGain(thresholdDB);
  nlohmann::json found = nlohmann::json::array();
  double total = 0;
  long long silentFrom = -1;
  auto close = [&](long long end) {
    double start = double(silentFrom) / audio->sampleRate, stop = double(end) / audio->sampleRate;
    if (stop - start >= minDuration && stop > start) {
      found.push_back(
          {{"start", rounded(start)}, {"end", rounded(stop)}, {"duration", rounded(stop - start)}});
      total += stop - start;
    }
    silentFrom = -1;
  };
  for (long long from = 0; from < audio->frames; from += window) {
    long long to = std::min(audio->frames, from + window);
    float peak = 0;
    for (long long i = from * audio->channels; i < to * audio->channels; ++i)
      peak = std::max(peak, std::abs(audio->samples[std::size_t(i)]));
    bool silent = peak < threshold;
    if (silent && silentFrom < 0) silentFrom = from;
    if (!silent && silentFrom >= 0) close(from);
  }
  if (silentFrom >= 0) close(audio->frames);
  return {{"path", path},
          {"duration", audio->duration()},
          {"thresholdDB", thresholdDB},
          {"minDuration", minDuration},
          {"silences", found},
          {"totalSilence", rounded(total)}};
}

void writeTestTone(const std::string& path) {
  const int rate = 48000;
  SF_INFO format{};
  format.samplerate = rate;
  format.channels = 1;
  format.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &format);
  if (!file) throw SimError("cannot write " + path + ": " + sf_strerror(nullptr));
  // 0-1.5 s 440 Hz at -6 dBFS, 1.5-2 s silence, 2-3.5 s 660 Hz at -12 dBFS, 3.5-4 s silence.
  std::vector<float> samples(std::size_t(rate * 4));
  for (std::size_t i = 0; i < samples.size(); ++i) {
    double t = double(i) / rate;
    double tone = t < 1.5             ? 0.5 * std::sin(2 * std::numbers::pi * 440 * t)
                  : t >= 2 && t < 3.5 ? 0.25 * std::sin(2 * std::numbers::pi * 660 * t)
                                      : 0;
    samples[i] = float(tone);
  }
  sf_count_t written = sf_writef_float(file, samples.data(), sf_count_t(samples.size()));
  sf_close(file);
  if (written != sf_count_t(samples.size())) throw SimError("short write to " + path);
}

}  // namespace tondrel::sim
