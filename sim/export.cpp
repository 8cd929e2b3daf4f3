#include "export.hpp"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>

#include "audio.hpp"
#include "document.hpp"
#include "mixer.hpp"

namespace tondrel::sim {

namespace {

constexpr double kMaxExport = 2 * 3600.0;  // longer exports are refused: they would fill the disk
constexpr std::size_t kBlock = 16384;

// The formats the simulator writes, each with the extensions that choose it.
struct Format {
  const char* name;
  std::initializer_list<const char*> extensions;
  int container;
};
const Format kFormats[] = {
    {"wav", {".wav"}, SF_FORMAT_WAV}, {"aiff", {".aif", ".aiff"}, SF_FORMAT_AIFF},
    {"caf", {".caf"}, SF_FORMAT_CAF}, {"flac", {".flac"}, SF_FORMAT_FLAC},
    {"alac", {}, SF_FORMAT_CAF},      {"mp3", {".mp3"}, SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III},
};

std::string formatNames() {
  std::string out;
  for (const Format& format : kFormats) out += std::string(out.empty() ? "" : ", ") + format.name;
  return out;
}

struct Writing {
  int format = 0;
  double compression = -1;  // mp3 only: libsndfile's 0 (best) to 1 (smallest)
};

Writing writingFor(const std::string& name, int bitDepth, int bitRate) {
  int pcm = bitDepth == 16 ? SF_FORMAT_PCM_16 : bitDepth == 24 ? SF_FORMAT_PCM_24 : SF_FORMAT_FLOAT;
  if (name == "flac" && bitDepth == 32) throw SimError("flac holds 16 or 24 bits, not 32");
  if (name == "alac")
    return {SF_FORMAT_CAF | (bitDepth == 16   ? SF_FORMAT_ALAC_16
                             : bitDepth == 24 ? SF_FORMAT_ALAC_24
                                              : SF_FORMAT_ALAC_32)};
  if (name == "mp3") return {SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 1.0 - (bitRate - 32) / 288.0};
  for (const Format& format : kFormats)
    if (name == format.name) return {format.container | pcm};
  throw SimError("the simulator cannot write " + name +
                 (name == "m4a"   ? " (AAC needs Apple's encoder)"
                  : name == "mid" ? " (MIDI file export is not simulated)"
                                  : "") +
                 "; use " + formatNames());
}

std::string formatFromPath(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  for (const Format& format : kFormats)
    for (const char* known : format.extensions)
      if (extension == known) return format.name;
  if (extension == ".m4a") return "m4a";
  if (extension == ".mid" || extension == ".midi") return "mid";
  return "wav";
}

int intArgument(const json& request, const char* key, int fallback, std::initializer_list<int> allowed) {
  if (!request.contains(key) || request[key].is_null()) return fallback;
  const json& value = request[key];
  for (int choice : allowed)
    if (value.is_number() && value.get<double>() == choice) return choice;
  std::string list;
  for (int choice : allowed) list += (list.empty() ? "" : ", ") + std::to_string(choice);
  throw SimError(std::string(key) + " must be one of " + list + ", got " + value.dump());
}

// Renders [start, start + frames) block by block into a zeroed stereo buffer.
void renderBlocks(const Mixer& mixer, int rate, double start, long long frames,
                  const std::function<void(float* block, std::size_t count)>& use) {
  std::vector<float> block(2 * kBlock);
  for (long long done = 0; done < frames; done += static_cast<long long>(kBlock)) {
    auto count = std::size_t(std::min<long long>(static_cast<long long>(kBlock), frames - done));
    std::fill(block.begin(), block.end(), 0.0f);
    mixer.render(start + double(done) / rate, count, block.data());
    use(block.data(), count);
  }
}

// Renders the range once to measure it; answers the gain that normalizing asks for.
double normalizingGain(const Mixer& mixer, const std::string& mode, int rate, int channels, double start,
                       long long frames) {
  if (mode == "none") return 1;
  double peak = 0, sum = 0;
  renderBlocks(mixer, rate, start, frames, [&](float* block, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      double left = block[2 * i], right = block[2 * i + 1];
      if (channels == 1) left = right = (left + right) / 2;
      peak = std::max({peak, std::abs(left), std::abs(right)});
      sum += (left * left + right * right) / 2;
    }
  });
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
  double peak = 0;
  long long written = 0;
  renderBlocks(mixer, rate, start, frames, [&](float* block, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      float left = float(block[2 * i] * gain), right = float(block[2 * i + 1] * gain);
      if (channels == 1)
        block[i] = (left + right) / 2;
      else
        block[2 * i] = left, block[2 * i + 1] = right;
      peak = std::max({peak, double(std::abs(left)), double(std::abs(right))});
    }
    written += sf_writef_float(file, block, sf_count_t(count));
  });
  int closed = sf_close(file);
  if (written != frames || closed != 0) throw SimError("writing " + path + " failed part way");
  return {{"path", path}, {"frames", frames}, {"peakDB", std::round(gainToDb(peak) * 100) / 100}};
}

std::string safeName(std::string name) {
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') c = '_';
  return name.empty() ? "track" : name.substr(0, 60);
}

// What an export request asks for, checked before anything is rendered.
struct Request {
  std::filesystem::path path;
  std::string format, normalization = "none";
  int rate, bitDepth, bitRate, channels;
  bool stems;
  std::pair<double, double> range;
};

Request readRequest(const json& document, const json& body) {
  if (!body.is_object() || !body.contains("path") || !body["path"].is_string())
    throw SimError("path, the destination file, is required");
  Request r;
  r.path = body["path"].get<std::string>();
  if (!r.path.is_absolute()) throw SimError("path must be absolute, got \"" + r.path.string() + "\"");
  r.format = formatFromPath(r.path);
  if (body.contains("format") && !body["format"].is_null()) {
    if (!body["format"].is_string()) throw SimError("format must be a string");
    r.format = body["format"];
  }
  r.rate = intArgument(body, "sampleRate", kDefaultSampleRate, {44100, 48000, 88200, 96000});
  r.bitDepth = intArgument(body, "bitDepth", 24, {16, 24, 32});
  r.bitRate = intArgument(body, "bitRateKbps", 256, {128, 192, 256, 320});
  r.channels = intArgument(body, "channels", 2, {1, 2});
  if (body.contains("normalization") && !body["normalization"].is_null()) {
    const json& value = body["normalization"];
    if (!value.is_string() || (value != "none" && value != "peak" && value != "lufs"))
      throw SimError("normalization must be \"none\", \"peak\" or \"lufs\", got " + value.dump());
    r.normalization = value;
  }
  if (body.contains("stems") && !body["stems"].is_null() && !body["stems"].is_boolean())
    throw SimError("stems must be a boolean");
  r.stems = body.value("stems", false);
  r.range = {0, projectDuration(document)};
  if (body.contains("range") && !body["range"].is_null()) r.range = readRange(body["range"], "range");
  if (r.range.second <= r.range.first) throw SimError("nothing to export: the project is empty");
  if (r.range.second - r.range.first > kMaxExport)
    throw SimError("the simulator exports at most two hours at a time");
  return r;
}

// The files an export writes: path itself, or one stem per track beside it.
std::vector<std::string> destinations(const json& document, const Request& r) {
  if (!r.stems) return {r.path.string()};
  const json& tracks = document["tracks"];
  if (tracks.empty()) throw SimError("no tracks to export as stems");
  std::string extension = r.path.extension().empty() ? "." + r.format : r.path.extension().string();
  std::vector<std::string> out;
  for (std::size_t t = 0; t < tracks.size(); ++t) {
    char number[24];
    std::snprintf(number, sizeof number, "%02zu", t + 1);
    out.push_back((r.path.parent_path() /
                   (r.path.stem().string() + "-" + number + "-" + safeName(tracks[t]["name"]) + extension))
                      .string());
  }
  return out;
}

// An export must never write over audio the project plays: the clip would lose its source.
void refuseOverwritingSources(const json& document, const std::vector<std::string>& files) {
  std::error_code error;
  for (const std::string& file : files) {
    if (!std::filesystem::exists(file, error)) continue;
    for (std::size_t t = 0; t < document["tracks"].size(); ++t)
      for (const json& clip : document["tracks"][t]["clips"])
        if (std::filesystem::equivalent(file, clip["path"].get<std::string>(), error))
          throw SimError("the export would overwrite " + file + ", the audio of clip " + clip["id"].dump() +
                         " on track " + std::to_string(t) + "; choose another path");
  }
}

}  // namespace

json exportAudio(const json& document, const json& body) {
  Request r = readRequest(document, body);
  Writing writing = writingFor(r.format, r.bitDepth, r.bitRate);
  SF_INFO check{};
  check.samplerate = r.rate;
  check.channels = r.channels;
  check.format = writing.format;
  if (!sf_format_check(&check))
    throw SimError("this machine's libsndfile cannot write " + r.format + " at " + std::to_string(r.rate) +
                   " Hz, " + std::to_string(r.bitDepth) + " bits, " + std::to_string(r.channels) +
                   " channels");
  std::vector<std::string> paths = destinations(document, r);
  refuseOverwritingSources(document, paths);
  auto frames = static_cast<long long>(std::llround((r.range.second - r.range.first) * r.rate));
  json files = json::array();
  for (std::size_t i = 0; i < paths.size(); ++i) {
    Mixer mixer = r.stems ? Mixer(document, r.rate, i) : Mixer(document, r.rate);
    files.push_back(
        writeFile(paths[i], mixer, writing, r.rate, r.channels, r.range.first, frames, r.normalization));
  }
  return {{"ok", true},
          {"format", r.format},
          {"sampleRate", r.rate},
          {"bitDepth", r.bitDepth},
          {"channels", r.channels},
          {"normalization", r.normalization},
          {"range", {r.range.first, r.range.second}},
          {"duration", r.range.second - r.range.first},
          {"files", files}};
}

double bounceTrack(const json& document, std::size_t track, const std::string& path) {
  double end = 0;
  for (const json& note : document["tracks"][track]["notes"]) end = std::max(end, noteEnd(note));
  if (end <= 0) throw SimError("the track has no notes to bounce");
  if (end > 600) throw SimError("the simulator bounces at most ten minutes of a track");
  const int rate = kDefaultSampleRate;
  auto frames = static_cast<long long>(std::llround(end * rate));
  writeFile(path, Mixer(document, rate, track), {SF_FORMAT_WAV | SF_FORMAT_PCM_24}, rate, 2, 0, frames,
            "none");
  return double(frames) / rate;
}

}  // namespace tondrel::sim
