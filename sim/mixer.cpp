#include "mixer.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "audio.hpp"
#include "document.hpp"
#include "fades.hpp"

namespace tondrel::sim {

// What one track plays, read out of the document once so that rendering touches no JSON.
struct Mixer::Plan {
  struct Clip {
    std::shared_ptr<const AudioData> audio;
    double offset, duration, sourceStart, fadeIn, fadeOut;
    bool reversed;
    float gain;
    double (*fade)(double);
  };
  struct Note {
    double start, end, frequency;
    float amplitude;
  };
  std::vector<Clip> clips;
  std::vector<Note> notes;
  float left = 1, right = 1;
};

namespace {

bool plays(const json& track, std::size_t index, std::optional<std::size_t> onlyTrack, bool soloed) {
  if (onlyTrack) return index == *onlyTrack;
  return !track["mute"].get<bool>() && (!soloed || track["solo"].get<bool>());
}

}  // namespace

Mixer::Mixer(const json& document, int sampleRate, std::optional<std::size_t> onlyTrack)
    : rate_(sampleRate), master_(float(dbToGain(document["masterGainDB"].get<double>()))) {
  bool soloed = false;
  for (const json& track : document["tracks"]) soloed = soloed || track["solo"].get<bool>();
  for (std::size_t t = 0; t < document["tracks"].size(); ++t) {
    const json& track = document["tracks"][t];
    if (!plays(track, t, onlyTrack, soloed)) continue;
    auto plan = std::make_shared<Plan>();
    double gain = dbToGain(track["gainDB"].get<double>()),
           pan = std::clamp(track["pan"].get<double>(), -1.0, 1.0);
    plan->left = float(gain * std::min(1.0, 1 - pan));
    plan->right = float(gain * std::min(1.0, 1 + pan));
    bool midi = track["kind"] == "midi";
    for (const json& clip : track["clips"]) {
      if (clip["mute"].get<bool>() || midi) continue;
      const FadeShape* shape = findFadeShape(clip["fadeShape"].get<std::string>());
      plan->clips.push_back({loadAudio(clip["path"]), clip["offset"], clip["duration"], clip["sourceStart"],
                             clip["fadeIn"], clip["fadeOut"], clip["reversed"],
                             float(dbToGain(clip["gainDB"].get<double>())),
                             (shape ? *shape : kDefaultFade).gain});
    }
    for (const json& note : track["notes"]) {
      if (!midi) continue;
      double pitch = note["pitch"].get<double>() + track["transpose"].get<double>();
      plan->notes.push_back({note["start"], noteEnd(note), 440 * std::pow(2.0, (pitch - 69) / 12),
                             float(0.25 * note["velocity"].get<double>() / 127)});
    }
    tracks_.push_back(plan);
  }
}

namespace {

// The frames of a block starting at `start` that [from, to) covers.
std::pair<std::size_t, std::size_t> span(double start, std::size_t frames, int rate, double from, double to) {
  auto frame = [&](double t) {
    return static_cast<std::size_t>(std::clamp(std::ceil((t - start) * rate), 0.0, double(frames)));
  };
  return {frame(from), frame(to)};
}

}  // namespace

void Mixer::renderClips(const Plan& track, double start, std::size_t frames, float* out) const {
  const double end = start + double(frames) / rate_;
  for (const Plan::Clip& clip : track.clips) {
    if (clip.offset >= end || clip.offset + clip.duration <= start) continue;
    auto [first, last] = span(start, frames, rate_, clip.offset, clip.offset + clip.duration);
    const double sourceRate = clip.audio->sampleRate;
    for (std::size_t i = first; i < last; ++i) {
      double local = start + double(i) / rate_ - clip.offset;
      double source = clip.reversed ? clip.sourceStart + clip.duration - local : clip.sourceStart + local;
      double gain = clip.gain * master_;
      if (local < clip.fadeIn) gain *= clip.fade(std::clamp(local / clip.fadeIn, 0.0, 1.0));
      if (clip.duration - local < clip.fadeOut)
        gain *= clip.fade(std::clamp((clip.duration - local) / clip.fadeOut, 0.0, 1.0));
      out[2 * i] += float(gain) * track.left * clip.audio->at(0, source * sourceRate);
      out[2 * i + 1] += float(gain) * track.right * clip.audio->at(1, source * sourceRate);
    }
  }
}

void Mixer::renderNotes(const Plan& track, double start, std::size_t frames, float* out) const {
  const double end = start + double(frames) / rate_;
  for (const Plan::Note& note : track.notes) {
    if (note.start >= end || note.end <= start) continue;
    auto [first, last] = span(start, frames, rate_, note.start, note.end);
    for (std::size_t i = first; i < last; ++i) {
      double t = start + double(i) / rate_;
      double envelope = std::min({1.0, (t - note.start) / 0.005, (note.end - t) / 0.005});  // 5 ms ramps
      float value = float(note.amplitude * envelope *
                          std::sin(2 * std::numbers::pi * note.frequency * (t - note.start))) *
                    master_;
      out[2 * i] += value * track.left;
      out[2 * i + 1] += value * track.right;
    }
  }
}

void Mixer::render(double start, std::size_t frames, float* out) const {
  for (const auto& track : tracks_) {
    renderClips(*track, start, frames, out);
    renderNotes(*track, start, frames, out);
  }
}

}  // namespace tondrel::sim
