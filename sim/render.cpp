#include "render.hpp"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numbers>

#include "audio.hpp"
#include "session.hpp"

namespace tondrel::sim {

using nlohmann::json;

namespace {

enum class Shape { linear, cosine, exponential, logarithmic };

Shape shapeNamed(const std::string& name) {
  return name == "linear"        ? Shape::linear
         : name == "exponential" ? Shape::exponential
         : name == "logarithmic" ? Shape::logarithmic
                                 : Shape::cosine;
}

double fade(Shape shape, double x) {
  x = std::clamp(x, 0.0, 1.0);
  switch (shape) {
    case Shape::linear:
      return x;
    case Shape::exponential:
      return x * x;
    case Shape::logarithmic:
      return std::sqrt(x);
    case Shape::cosine:
      break;
  }
  return 0.5 - 0.5 * std::cos(std::numbers::pi * x);
}

constexpr double kMaxExport = 2 * 3600.0;  // longer exports are refused: they would fill the disk
constexpr std::size_t kBlock = 16384;

}  // namespace

struct Mixer::Plan {
  struct Clip {
    std::shared_ptr<const AudioData> audio;
    double offset, duration, sourceStart, fadeIn, fadeOut;
    bool reversed;
    float gain;
    Shape shape;
  };
  struct Note {
    double start, end, frequency;
    float amplitude;
  };
  std::vector<Clip> clips;
  std::vector<Note> notes;
  float left = 1, right = 1;
};

Mixer::Mixer(const json& document, int sampleRate, std::optional<std::size_t> onlyTrack)
    : rate_(sampleRate), master_(float(dbToGain(document["masterGainDB"].get<double>()))) {
  bool soloed = false;
  for (const json& track : document["tracks"]) soloed = soloed || track["solo"].get<bool>();
  for (std::size_t t = 0; t < document["tracks"].size(); ++t) {
    const json& track = document["tracks"][t];
    if (onlyTrack ? t != *onlyTrack : track["mute"].get<bool>() || (soloed && !track["solo"].get<bool>()))
      continue;
    auto plan = std::make_shared<Plan>();
    double gain = dbToGain(track["gainDB"].get<double>()),
           pan = std::clamp(track["pan"].get<double>(), -1.0, 1.0);
    plan->left = float(gain * std::min(1.0, 1 - pan));
    plan->right = float(gain * std::min(1.0, 1 + pan));
    for (const json& clip : track["clips"]) {
      if (clip["mute"].get<bool>() || track["kind"] == "midi") continue;
      plan->clips.push_back({loadAudio(clip["path"]), clip["offset"], clip["duration"], clip["sourceStart"],
                             clip["fadeIn"], clip["fadeOut"], clip["reversed"],
                             float(dbToGain(clip["gainDB"].get<double>())), shapeNamed(clip["fadeShape"])});
    }
    if (track["kind"] == "midi")
      for (const json& note : track["notes"]) {
        double pitch = note["pitch"].get<double>() + track["transpose"].get<double>();
        double start = note["start"];
        plan->notes.push_back({start, start + note["duration"].get<double>(),
                               440 * std::pow(2.0, (pitch - 69) / 12),
                               float(0.25 * note["velocity"].get<double>() / 127)});
      }
    tracks_.push_back(plan);
  }
}

void Mixer::render(double start, std::size_t frames, float* out) const {
  const double end = start + double(frames) / rate_;
  auto span = [&](double from, double to) {  // the frames of this block that [from, to) covers
    auto first = static_cast<std::size_t>(std::clamp(std::ceil((from - start) * rate_), 0.0, double(frames)));
    auto last = static_cast<std::size_t>(std::clamp(std::ceil((to - start) * rate_), 0.0, double(frames)));
    return std::pair{first, last};
  };
  for (const auto& track : tracks_) {
    for (const Plan::Clip& clip : track->clips) {
      if (clip.offset >= end || clip.offset + clip.duration <= start) continue;
      auto [first, last] = span(clip.offset, clip.offset + clip.duration);
      const double sourceRate = clip.audio->sampleRate;
      for (std::size_t i = first; i < last; ++i) {
        double local = start + double(i) / rate_ - clip.offset;
        double source = clip.reversed ? clip.sourceStart + clip.duration - local : clip.sourceStart + local;
        double gain = clip.gain * master_;
        if (local < clip.fadeIn) gain *= fade(clip.shape, local / clip.fadeIn);
        if (clip.duration - local < clip.fadeOut)
          gain *= fade(clip.shape, (clip.duration - local) / clip.fadeOut);
        out[2 * i] += float(gain) * track->left * clip.audio->at(0, source * sourceRate);
        out[2 * i + 1] += float(gain) * track->right * clip.audio->at(1, source * sourceRate);
      }
    }
    for (const Plan::Note& note : track->notes) {
      if (note.start >= end || note.end <= start) continue;
      auto [first, last] = span(note.start, note.end);
      for (std::size_t i = first; i < last; ++i) {
        double t = start + double(i) / rate_;
        double envelope = std::min({1.0, (t - note.start) / 0.005, (note.end - t) / 0.005});
        float value = float(note.amplitude * envelope *
                            std::sin(2 * std::numbers::pi * note.frequency * (t - note.start))) *
                      master_;
        out[2 * i] += value * track->left;
        out[2 * i + 1] += value * track->right;
      }
    }
  }
}

namespace {

struct Writing {
  int format = 0;
  double compression = -1;  // mp3 only: libsndfile's 0 (best) to 1 (smallest)
};

Writing writingFor(const std::string& name, int bitDepth, int bitRate) {
  int pcm = bitDepth == 16 ? SF_FORMAT_PCM_16 : bitDepth == 24 ? SF_FORMAT_PCM_24 : SF_FORMAT_FLOAT;
  if (name == "wav") return {SF_FORMAT_WAV | pcm};
  if (name == "aiff") return {SF_FORMAT_AIFF | pcm};
  if (name == "caf") return {SF_FORMAT_CAF | pcm};
  if (name == "flac") {
    if (bitDepth == 32) throw SimError("flac holds 16 or 24 bits, not 32");
    return {SF_FORMAT_FLAC | pcm};
  }
  if (name == "alac")
    return {SF_FORMAT_CAF | (bitDepth == 16   ? SF_FORMAT_ALAC_16
                             : bitDepth == 24 ? SF_FORMAT_ALAC_24
                                              : SF_FORMAT_ALAC_32)};
  if (name == "mp3") return {SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 1.0 - (bitRate - 32) / 288.0};
  throw SimError("the simulator cannot write " + name +
                 (name == "m4a" ? " (AAC needs Apple's encoder); use alac, wav, aiff, caf, flac or mp3"
                  : name == "mid"
                      ? " (MIDI file export is not simulated); use wav, aiff, caf, flac, alac or mp3"
                      : "; use wav, aiff, caf, flac, alac or mp3"));
}

std::string formatFromPath(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  if (extension == ".aif" || extension == ".aiff") return "aiff";
  if (extension == ".midi") return "mid";
  for (const char* known : {".wav", ".caf", ".flac", ".mp3", ".m4a", ".mid"})
    if (extension == known) return extension.substr(1);
  return "wav";
}

int intArgument(const json& request, const char* key, int fallback, std::initializer_list<int> allowed) {
  if (!request.contains(key) || request[key].is_null()) return fallback;
  const json& value = request[key];
  if (value.is_number()) {
    double number = value.get<double>();
    for (int choice : allowed)
      if (number == choice) return choice;
  }
  std::string list;
  for (int choice : allowed) list += (list.empty() ? "" : ", ") + std::to_string(choice);
  throw SimError(std::string(key) + " must be one of " + list + ", got " + value.dump());
}

// Renders [start, start + frames) once to measure it; answers the gain that normalizing asks for.
double normalizingGain(const Mixer& mixer, const std::string& mode, int rate, int channels, double start,
                       long long frames) {
  if (mode == "none") return 1;
  std::vector<float> block(2 * kBlock);
  double peak = 0, sum = 0;
  for (long long done = 0; done < frames; done += static_cast<long long>(kBlock)) {
    std::size_t count = std::size_t(std::min<long long>(static_cast<long long>(kBlock), frames - done));
    std::fill(block.begin(), block.end(), 0.0f);
    mixer.render(start + double(done) / rate, count, block.data());
    for (std::size_t i = 0; i < count; ++i) {
      double left = block[2 * i], right = block[2 * i + 1];
      if (channels == 1) left = right = (left + right) / 2;
      peak = std::max({peak, std::abs(left), std::abs(right)});
      sum += (left * left + right * right) / 2;
    }
  }
  if (peak <= 0) return 1;
  if (mode == "peak") return dbToGain(-1.0) / peak;
  return dbToGain(-14.0) /
         std::sqrt(sum / double(std::max(1LL, frames)));  // lufs, approximately: see the docs
}

json writeFile(const std::string& path, const Mixer& mixer, const Writing& writing, int rate, int channels,
               double start, long long frames, const std::string& normalization) {
  double gain = normalizingGain(mixer, normalization, rate, channels, start, frames);
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = channels;
  info.format = writing.format;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!file) throw SimError("cannot write " + path + ": " + sf_strerror(nullptr));
  if (writing.compression >= 0) {
    int mode = SF_BITRATE_MODE_CONSTANT;
    sf_command(file, SFC_SET_BITRATE_MODE, &mode, sizeof mode);
    double level = std::clamp(writing.compression, 0.0, 1.0);
    sf_command(file, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
  }
  std::vector<float> block(2 * kBlock);
  double peak = 0;
  long long written = 0;
  for (long long done = 0; done < frames; done += static_cast<long long>(kBlock)) {
    std::size_t count = std::size_t(std::min<long long>(static_cast<long long>(kBlock), frames - done));
    std::fill(block.begin(), block.end(), 0.0f);
    mixer.render(start + double(done) / rate, count, block.data());
    for (std::size_t i = 0; i < count; ++i) {
      float left = float(block[2 * i] * gain), right = float(block[2 * i + 1] * gain);
      if (channels == 1)
        block[i] = (left + right) / 2;
      else
        block[2 * i] = left, block[2 * i + 1] = right;
      peak = std::max({peak, double(std::abs(left)), double(std::abs(right))});
    }
    written += sf_writef_float(file, block.data(), sf_count_t(count));
  }
  int closed = sf_close(file);
  if (written != frames || closed != 0) throw SimError("writing " + path + " failed part way");
  return {{"path", path}, {"frames", frames}, {"peakDB", std::round(gainToDb(peak) * 100) / 100}};
}

std::string safeName(std::string name) {
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') c = '_';
  return name.empty() ? "track" : name.substr(0, 60);
}

}  // namespace

json exportAudio(const json& document, const json& request) {
  if (!request.is_object() || !request.contains("path") || !request["path"].is_string())
    throw SimError("path, the destination file, is required");
  std::filesystem::path path = request["path"].get<std::string>();
  if (!path.is_absolute()) throw SimError("path must be absolute, got \"" + path.string() + "\"");
  std::string format = formatFromPath(path);
  if (request.contains("format") && !request["format"].is_null()) {
    if (!request["format"].is_string()) throw SimError("format must be a string");
    format = request["format"];
  }
  int rate = intArgument(request, "sampleRate", 48000, {44100, 48000, 88200, 96000});
  int bitDepth = intArgument(request, "bitDepth", 24, {16, 24, 32});
  int bitRate = intArgument(request, "bitRateKbps", 256, {128, 192, 256, 320});
  int channels = intArgument(request, "channels", 2, {1, 2});
  std::string normalization = "none";
  if (request.contains("normalization") && !request["normalization"].is_null()) {
    const json& value = request["normalization"];
    if (!value.is_string() || (value != "none" && value != "peak" && value != "lufs"))
      throw SimError("normalization must be \"none\", \"peak\" or \"lufs\", got " + value.dump());
    normalization = value;
  }
  if (request.contains("stems") && !request["stems"].is_null() && !request["stems"].is_boolean())
    throw SimError("stems must be a boolean");
  bool stems = request.value("stems", false);

  Writing writing = writingFor(format, bitDepth, bitRate);
  SF_INFO check{};
  check.samplerate = rate;
  check.channels = channels;
  check.format = writing.format;
  if (!sf_format_check(&check))
    throw SimError("this machine's libsndfile cannot write " + format + " at " + std::to_string(rate) +
                   " Hz, " + std::to_string(bitDepth) + " bits, " + std::to_string(channels) + " channels");

  std::pair<double, double> range{0, projectDuration(document)};
  if (request.contains("range") && !request["range"].is_null()) range = readRange(request["range"], "range");
  if (range.second <= range.first) throw SimError("nothing to export: the project is empty");
  if (range.second - range.first > kMaxExport)
    throw SimError("the simulator exports at most two hours at a time");
  auto frames = static_cast<long long>(std::llround((range.second - range.first) * rate));

  json files = json::array();
  if (stems) {
    const json& tracks = document["tracks"];
    if (tracks.empty()) throw SimError("no tracks to export as stems");
    std::string extension = path.extension().empty() ? "." + format : path.extension().string();
    for (std::size_t t = 0; t < tracks.size(); ++t) {
      char number[24];
      std::snprintf(number, sizeof number, "%02zu", t + 1);
      std::filesystem::path stem = path.parent_path() / (path.stem().string() + "-" + number + "-" +
                                                         safeName(tracks[t]["name"]) + extension);
      files.push_back(writeFile(stem.string(), Mixer(document, rate, t), writing, rate, channels, range.first,
                                frames, normalization));
    }
  } else {
    files.push_back(writeFile(path.string(), Mixer(document, rate), writing, rate, channels, range.first,
                              frames, normalization));
  }
  return {{"ok", true},
          {"format", format},
          {"sampleRate", rate},
          {"bitDepth", bitDepth},
          {"channels", channels},
          {"normalization", normalization},
          {"range", {range.first, range.second}},
          {"duration", range.second - range.first},
          {"files", files}};
}

double bounceTrack(const json& document, std::size_t track, const std::string& path) {
  double end = 0;
  for (const json& note : document["tracks"][track]["notes"])
    end = std::max(end, note["start"].get<double>() + note["duration"].get<double>());
  if (end <= 0) throw SimError("the track has no notes to bounce");
  if (end > 600) throw SimError("the simulator bounces at most ten minutes of a track");
  const int rate = 48000;
  auto frames = static_cast<long long>(std::llround(end * rate));
  writeFile(path, Mixer(document, rate, track), {SF_FORMAT_WAV | SF_FORMAT_PCM_24}, rate, 2, 0, frames,
            "none");
  return double(frames) / rate;
}

}  // namespace tondrel::sim
