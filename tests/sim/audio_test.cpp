// Analysis of generated audio and exports read back through libsndfile.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>

#include "export.hpp"
#include "sim_support.hpp"

namespace tondrel::sim::test {
namespace {

TEST(Analysis, FindsTheSilencesAndTheWaveformOfTheTestTone) {
  Scratch scratch;
  std::string tone = scratch.file("tone.wav");
  writeTestTone(tone);  // 0.5 peak to 1.5 s, silence, 0.25 peak 2-3.5 s, silence to 4 s
  // The threshold, the shortest silence, and the silences found.
  const std::tuple<double, double, std::vector<std::pair<double, double>>> cases[] = {
      {-42, 0.15, {{1.5, 2.0}, {3.5, 4.0}}},
      {-42, 0.6, {}},            // both gaps are shorter
      {-9, 0.15, {{1.5, 4.0}}},  // the quieter tone (-12 dBFS) counts as silence
      {-3, 0.15, {{0, 4.0}}},    // everything is under -3 dBFS
      {-42, 0, {{1.5, 2.0}, {3.5, 4.0}}},
  };
  for (const auto& [threshold, minimum, expected] : cases) {
    json answer = silences(tone, threshold, minimum);
    std::vector<std::pair<double, double>> found;
    for (const json& s : answer["silences"]) found.push_back({s["start"], s["end"]});
    EXPECT_EQ(found, expected) << threshold << " dB, " << minimum << " s";
  }
  EXPECT_THROW(silences(tone, 3, 0.1), SimError);
  EXPECT_THROW(silences(scratch.file("absent.wav"), -42, 0.1), SimError);

  json answer = waveform(tone, 8);  // half a second per bin
  const double peaks[] = {0.5, 0.5, 0.5, 0, 0.25, 0.25, 0.25, 0};
  ASSERT_EQ(answer["peak"].size(), 8u);
  for (int i = 0; i < 8; ++i) {
    EXPECT_NEAR(answer["peak"][i].get<double>(), peaks[i], 1e-3) << i;
    EXPECT_NEAR(answer["rms"][i].get<double>(), peaks[i] / std::sqrt(2.0), 2e-3) << i;  // a sine's RMS
  }
  EXPECT_THROW(waveform(tone, 0), SimError);
}

struct ReadBack {
  SF_INFO info{};
  std::vector<float> samples;
  double peak = 0;
};

ReadBack readBack(const std::string& path) {
  ReadBack out;
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &out.info);
  if (!file) return out;
  out.samples.resize(std::size_t(out.info.frames * out.info.channels));
  sf_readf_float(file, out.samples.data(), out.info.frames);
  sf_close(file);
  for (float s : out.samples) out.peak = std::max(out.peak, double(std::abs(s)));
  return out;
}

bool canWrite(int format) {
  SF_INFO info{};
  info.samplerate = 48000, info.channels = 2, info.format = format;
  return sf_format_check(&info);
}

TEST(Export, WritesWhatWasAskedAndReadsBackTheSame) {
  Scratch scratch;
  Session session(0);
  importTone(session, scratch);
  struct Case {
    const char* request;  // path relative to the scratch folder
    int container, rate, channels;
    long long frames, frameSlack;  // mp3 pads its frames
    double peak;                   // linear, read back; 0 when the level does not matter
    double tolerance;
  };
  const Case cases[] = {
      {R"({"path":"a.wav","bitDepth":16,"channels":1})", SF_FORMAT_WAV, 48000, 1, 192000, 0, 0.5, 1e-3},
      {R"({"path":"b.aiff","sampleRate":44100})", SF_FORMAT_AIFF, 44100, 2, 176400, 0, 0.5, 1e-3},
      {R"({"path":"c.caf","bitDepth":32,"normalization":"peak"})", SF_FORMAT_CAF, 48000, 2, 192000, 0, 0.8913,
       1e-3},
      {R"({"path":"d.flac","sampleRate":96000,"range":[1,2]})", SF_FORMAT_FLAC, 96000, 2, 96000, 0, 0.5,
       1e-3},
      {R"({"path":"e.wav","range":[1.5,2]})", SF_FORMAT_WAV, 48000, 2, 24000, 0, 0, 0},
      {R"({"path":"f.caf","format":"alac","bitDepth":16})", SF_FORMAT_CAF, 48000, 2, 192000, 0, 0.5, 2e-3},
      {R"({"path":"g.mp3","bitRateKbps":320})", SF_FORMAT_MPEG, 48000, 2, 192000, 2400, 0.5, 0.05},
  };
  for (const Case& c : cases) {
    json request = json::parse(c.request);
    std::string path = scratch.file(request["path"]);
    request["path"] = path;
    if (c.container == SF_FORMAT_MPEG && !canWrite(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III)) {
      EXPECT_THROW(exportAudio(session.document(), request), SimError);
      continue;
    }
    json answer = exportAudio(session.document(), request);
    ReadBack file = readBack(path);
    EXPECT_EQ(file.info.format & SF_FORMAT_TYPEMASK, c.container) << c.request;
    EXPECT_EQ(file.info.samplerate, c.rate) << c.request;
    EXPECT_EQ(file.info.channels, c.channels) << c.request;
    EXPECT_NEAR(double(file.info.frames), double(c.frames), double(c.frameSlack)) << c.request;
    if (c.peak > 0)
      EXPECT_NEAR(file.peak, c.peak, c.tolerance) << c.request;
    else
      EXPECT_LT(file.peak, 1e-4) << c.request;  // the gap in the tone
    EXPECT_EQ(answer["files"][0]["path"], path);
  }
}

TEST(Export, MixesGainPanMuteSoloAndFades) {
  // Ops, the end of the range exported from 0, and the peaks of its left and right channels.
  const std::tuple<const char*, double, double, double> cases[] = {
      {R"([{"op":"clip.gain","clip":"$","db":-6.0206}])", 1, 0.25, 0.25},
      {R"([{"op":"master.gain","db":-6.0206}])", 1, 0.25, 0.25},
      {R"([{"op":"track.set","track":0,"pan":1}])", 1, 0, 0.5},
      {R"([{"op":"track.set","track":0,"mute":true}])", 1, 0, 0},
      {R"([{"op":"track.add"},{"op":"track.set","track":1,"solo":true}])", 1, 0, 0},
      {R"([{"op":"clip.fades","clip":"$","fadeIn":1,"shape":"linear"}])", 0.5, 0.25, 0.25},  // half way up
      {R"([{"op":"clip.fades","clip":"$","fadeIn":1,"shape":"exponential"}])", 0.5, 0.125, 0.125},
  };
  Scratch scratch;
  Session session(0);
  std::string clip = importTone(session, scratch), path = scratch.file("mix.wav");
  for (const auto& [ops, end, left, right] : cases) {
    edit(session, withIds(ops, {{'$', clip}}));
    exportAudio(session.document(), {{"path", path}, {"range", {0, end}}, {"bitDepth", 32}});
    std::vector<float> samples = readBack(path).samples;
    double peaks[2] = {0, 0};
    for (std::size_t i = 0; i < samples.size(); ++i)
      peaks[i % 2] = std::max(peaks[i % 2], double(std::abs(samples[i])));
    EXPECT_NEAR(peaks[0], left, 0.01) << ops;
    EXPECT_NEAR(peaks[1], right, 0.01) << ops;
    session.undo();
  }
}

TEST(Export, StemsWriteOneFilePerTrackBesideThePath) {
  Scratch scratch;
  Session session(0);
  importTone(session, scratch);
  edit(session, {{{"op", "track.add"}, {"name", "Keys/1"}, {"kind", "midi"}},
                 {{"op", "note.add"}, {"track", 1}, {"pitch", 69}, {"start", 0}, {"duration", 1}}});
  json answer = exportAudio(session.document(), {{"path", scratch.file("song.wav")}, {"stems", true}});
  ASSERT_EQ(answer["files"].size(), 2u);
  EXPECT_EQ(answer["files"][0]["path"], scratch.file("song-01-Tone.wav"));
  EXPECT_EQ(answer["files"][1]["path"], scratch.file("song-02-Keys_1.wav"));
  EXPECT_NEAR(readBack(scratch.file("song-01-Tone.wav")).peak, 0.5, 1e-3);
  EXPECT_NEAR(readBack(scratch.file("song-02-Keys_1.wav")).peak, 0.25 * 100 / 127, 0.01);
  EXPECT_FALSE(std::filesystem::exists(scratch.file("song.wav")));
}

TEST(Export, RefusesWhatItCannotWriteNamingTheReason) {
  Scratch scratch;
  Session session(0);
  std::string empty = refusal([&] { exportAudio(session.document(), {{"path", scratch.file("x.wav")}}); });
  EXPECT_NE(empty.find("the project is empty"), std::string::npos);
  importTone(session, scratch);
  std::filesystem::copy_file(scratch.file("tone.wav"), scratch.file("song-01-Tone.wav"));
  edit(session,
       {{{"op", "clip.add"}, {"path", scratch.file("song-01-Tone.wav")}, {"track", 0}, {"offset", 4}}});
  const std::pair<json, std::string> cases[] = {
      {{{"path", scratch.file("x.m4a")}}, "cannot write m4a"},
      {{{"path", scratch.file("x.wav")}, {"format", "mid"}}, "cannot write mid"},
      {{{"path", scratch.file("x.wav")}, {"format", "ogg"}}, "cannot write ogg; use wav, aiff, caf,"},
      {{{"path", scratch.file("x.flac")}, {"bitDepth", 32}}, "flac holds 16 or 24 bits"},
      {{{"path", scratch.file("x.wav")}, {"bitDepth", 12}}, "bitDepth must be one of 16, 24, 32, got 12"},
      {{{"path", scratch.file("x.wav")}, {"channels", 6}}, "channels must be one of 1, 2"},
      {{{"path", scratch.file("x.wav")}, {"normalization", "rms"}}, "normalization must be"},
      {{{"path", scratch.file("x.wav")}, {"range", {3, 1}}}, "range must end after it starts"},
      {{{"path", "relative.wav"}}, "path must be absolute"},
      {{{"path", scratch.file("no/such/dir/x.wav")}}, "cannot write"},
      // The clip's own source, by its name, through another spelling, or as a stem.
      {{{"path", scratch.file("tone.wav")}}, "overwrite " + scratch.file("tone.wav") + ", the audio of clip"},
      {{{"path", scratch.file("../" + scratch.dir.filename().string() + "/tone.wav")}}, "would overwrite"},
      {{{"path", scratch.file("song.wav")}, {"stems", true}},
       "overwrite " + scratch.file("song-01-Tone.wav")},
  };
  for (const auto& [request, expected] : cases) {
    std::string message = refusal([&] { exportAudio(session.document(), request); });
    EXPECT_NE(message.find(expected), std::string::npos) << request << "\n  got: " << message;
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch.dir), {}), 2);  // the two sources alone
}

}  // namespace
}  // namespace tondrel::sim::test
