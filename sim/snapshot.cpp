#include "snapshot.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

#include "audio.hpp"

namespace tondrel::sim {

namespace {

constexpr int kWidth = 1280, kHeader = 28, kRuler = 24, kTrackHeight = 96, kLane = 150, kMaxTracks = 24;

struct Canvas {
  cairo_t* cr;
  double start, end;  // the visible time span
  double x(double t) const { return kLane + (t - start) / (end - start) * (kWidth - kLane - 10); }
};

void color(cairo_t* cr, unsigned rgb, double alpha = 1) {
  cairo_set_source_rgba(cr, ((rgb >> 16) & 255) / 255.0, ((rgb >> 8) & 255) / 255.0, (rgb & 255) / 255.0,
                        alpha);
}

// Cuts at n bytes without splitting a UTF-8 sequence, which would stop cairo drawing text at all.
std::string cut(const std::string& s, std::size_t n) {
  if (s.size() <= n) return s;
  while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
  return s.substr(0, n);
}

void text(cairo_t* cr, double x, double y, const std::string& s, double size = 12, unsigned rgb = 0xE6E6E6) {
  cairo_set_font_size(cr, size);
  color(cr, rgb);
  cairo_move_to(cr, x, y);
  cairo_show_text(cr, cut(s, 80).c_str());
}

std::string fixed(double value, int decimals = 1) {
  char out[32];
  std::snprintf(out, sizeof out, "%.*f", decimals, value);
  return out;
}

double tickStep(double span) {
  for (double step :
       {0.1, 0.25, 0.5, 1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 1800.0, 3600.0})
    if (span / step <= 16) return step;
  return 7200;
}

// The clip's waveform, one column of peaks per pixel, scaled by its gain.
void drawWaveform(const Canvas& c, const json& clip, const AudioData& audio, double x0, double x1,
                  double middle, double half) {
  cairo_t* cr = c.cr;
  const double offset = clip["offset"], duration = clip["duration"], sourceStart = clip["sourceStart"];
  const double perPixel = (c.end - c.start) / (kWidth - kLane - 10);
  color(cr, clip["mute"].get<bool>() ? 0x9AA0A6 : 0xBFE3FF);
  double gain = dbToGain(clip["gainDB"].get<double>());
  for (int px = int(x0); px < int(x1); ++px) {
    double t0 = (px - kLane) * perPixel + c.start - offset, t1 = t0 + perPixel;
    if (clip["reversed"].get<bool>()) std::swap(t0, t1), t0 = duration - t0, t1 = duration - t1;
    auto from = static_cast<long long>((sourceStart + std::max(0.0, t0)) * audio.sampleRate);
    auto to = static_cast<long long>((sourceStart + std::min(duration, t1)) * audio.sampleRate);
    from = std::clamp(from, 0LL, audio.frames);
    to = std::clamp(std::max(to, from + 1), 0LL, audio.frames);
    float peak = 0;
    for (long long i = from * audio.channels; i < to * audio.channels; i += std::max(1LL, (to - from) / 64))
      peak = std::max(peak, std::abs(audio.samples[std::size_t(i)]));
    double extent = std::min(1.0, peak * gain) * half;
    cairo_rectangle(cr, px, middle - extent, 1, std::max(0.5, 2 * extent));
  }
  cairo_fill(cr);
}

// Fades as the curve's outline over the clip.
void drawFades(const Canvas& c, const json& clip, double y0, double h) {
  cairo_t* cr = c.cr;
  const double offset = clip["offset"], duration = clip["duration"];
  color(cr, 0xFFD166);
  cairo_set_line_width(cr, 1.5);
  double fadeIn = clip["fadeIn"], fadeOut = clip["fadeOut"];
  if (fadeIn > 0) {
    cairo_move_to(cr, c.x(offset), y0 + h);
    cairo_line_to(cr, c.x(offset + fadeIn), y0 + 16);
    cairo_stroke(cr);
  }
  if (fadeOut > 0) {
    cairo_move_to(cr, c.x(offset + duration - fadeOut), y0 + 16);
    cairo_line_to(cr, c.x(offset + duration), y0 + h);
    cairo_stroke(cr);
  }
}

void drawClip(const Canvas& c, const json& clip, double top, bool selected) {
  cairo_t* cr = c.cr;
  double x0 = c.x(clip["offset"]), x1 = c.x(clipEnd(clip));
  if (x1 < kLane || x0 > kWidth) return;
  x0 = std::max(x0, double(kLane));
  x1 = std::min(x1, double(kWidth));
  double y0 = top + 4, h = kTrackHeight - 8;
  bool muted = clip["mute"].get<bool>();
  color(cr, muted ? 0x555A60 : 0x2F6F9F);
  cairo_rectangle(cr, x0, y0, std::max(1.0, x1 - x0 - 1), h);  // a seam between clips that touch
  cairo_fill(cr);
  try {
    drawWaveform(c, clip, *loadAudio(clip["path"]), x0, x1, y0 + 16 + (h - 16) / 2, (h - 18) / 2);
  } catch (const SimError&) {
    text(cr, x0 + 4, y0 + h / 2, "missing: " + clip["path"].get<std::string>(), 11, 0xFF8080);
  }
  drawFades(c, clip, y0, h);
  cairo_save(cr);
  cairo_rectangle(cr, x0, y0, x1 - x0, 16);
  cairo_clip(cr);
  std::string name = std::filesystem::path(clip["path"].get<std::string>()).filename().string();
  std::string gain =
      clip["gainDB"].get<double>() != 0 ? " " + fixed(clip["gainDB"].get<double>()) + " dB" : "";
  text(cr, x0 + 4, y0 + 12,
       name + gain + (clip["reversed"].get<bool>() ? " (reversed)" : "") + (muted ? " (muted)" : ""), 11,
       0xFFFFFF);
  cairo_restore(cr);
  if (selected) {
    color(cr, 0xFFFFFF);
    cairo_set_line_width(cr, 2);
    cairo_rectangle(cr, x0 + 1, y0 + 1, x1 - x0 - 2, h - 2);
    cairo_stroke(cr);
  }
}

void drawNotes(const Canvas& c, const json& notes, double top) {
  int low = 127, high = 0;
  for (const json& note : notes)
    low = std::min(low, note["pitch"].get<int>()), high = std::max(high, note["pitch"].get<int>());
  double rows = std::max(12, high - low + 1), rowHeight = (kTrackHeight - 12) / rows;
  for (const json& note : notes) {
    double x0 = std::max(double(kLane), c.x(note["start"])),
           x1 = std::min(double(kWidth), c.x(note["start"].get<double>() + note["duration"].get<double>()));
    if (x1 <= x0) continue;
    double y = top + 6 + (high - note["pitch"].get<int>()) * rowHeight;
    color(c.cr, 0x7BD389, 0.4 + 0.6 * note["velocity"].get<double>() / 127);
    cairo_rectangle(c.cr, x0, y, std::max(2.0, x1 - x0 - 1), std::max(2.0, rowHeight - 1));
    cairo_fill(c.cr);
  }
}

// The title bar: the file, tempo, rate, master gain and transport.
void drawTitle(const Canvas& c, const Session& session, double duration) {
  cairo_t* cr = c.cr;
  const json& doc = session.document();
  color(cr, 0x2B2F36);
  cairo_rectangle(cr, 0, 0, kWidth, kHeader);
  cairo_fill(cr);
  std::string title = session.file ? std::filesystem::path(*session.file).filename().string() : "Untitled";
  const json& tempo = doc["tempo"];
  text(cr, 10, 19,
       title + "   " + fixed(tempo["bpm"].get<double>(), 0) + " BPM " +
           std::to_string(tempo["numerator"].get<int>()) + "/" +
           std::to_string(tempo["denominator"].get<int>()) + "   " +
           std::to_string(doc["sampleRate"].get<int>()) + " Hz   master " +
           fixed(doc["masterGainDB"].get<double>()) + " dB   " +
           (session.playing() ? "playing " : "stopped ") + fixed(session.time(), 2) + " s / " +
           fixed(duration, 2) + " s",
       13);
}

// The ruler's ticks, with grid lines down to bottom, and the loop range on it.
void drawRuler(const Canvas& c, const Session& session, double bottom) {
  cairo_t* cr = c.cr;
  double step = tickStep(c.end - c.start);
  for (double t = std::ceil(c.start / step) * step; t <= c.end; t += step) {
    color(cr, 0x3A3F47);
    cairo_rectangle(cr, std::floor(c.x(t)), kHeader, 1, bottom - kHeader);
    cairo_fill(cr);
    text(cr, c.x(t) + 3, kHeader + 16, fixed(t, step < 1 ? 2 : 0) + "s", 10, 0xA0A6AE);
  }
  if (auto loop = session.loopRange()) {
    color(cr, 0xF4A261, 0.8);
    cairo_rectangle(cr, c.x(loop->first), kHeader + 18, c.x(loop->second) - c.x(loop->first), 5);
    cairo_fill(cr);
  }
}

// One track: its header on the left (name, kind, flags, gain, pan) and its lane of clips or notes.
void drawTrack(const Canvas& c, const Session& session, int index, double top) {
  cairo_t* cr = c.cr;
  const json& track = session.document()["tracks"][std::size_t(index)];
  color(cr, session.selectedTrack && *session.selectedTrack == index ? 0x3B4350 : 0x2A2E35);
  cairo_rectangle(cr, 0, top, kLane - 2, kTrackHeight - 1);
  cairo_fill(cr);
  color(cr, 0x23272D);
  cairo_rectangle(cr, kLane, top, kWidth - kLane, kTrackHeight - 1);
  cairo_fill(cr);
  text(cr, 8, top + 18, cut(track["name"], 18), 12, 0xFFFFFF);
  std::string flags = track["kind"].get<std::string>();
  if (track["mute"].get<bool>()) flags += "  M";
  if (track["solo"].get<bool>()) flags += "  S";
  if (track["locked"].get<bool>()) flags += "  L";
  text(cr, 8, top + 36, flags, 10, 0xA0A6AE);
  text(cr, 8, top + 52,
       fixed(track["gainDB"].get<double>()) + " dB  pan " + fixed(track["pan"].get<double>(), 2), 10,
       0xA0A6AE);
  if (track["kind"] == "midi") drawNotes(c, track["notes"], top);
  const json& chosen = session.selectedClips;
  for (const json& clip : track["clips"])
    drawClip(c, clip, top, std::find(chosen.begin(), chosen.end(), clip["id"]) != chosen.end());
}

// What lies over the tracks: the selected range, the markers and the playhead.
void drawOverlays(const Canvas& c, const Session& session, double tracksTop, double bottom) {
  cairo_t* cr = c.cr;
  if (session.selectionRange) {
    color(cr, 0x9FD3FF, 0.18);
    double x0 = c.x(session.selectionRange->first), x1 = c.x(session.selectionRange->second);
    cairo_rectangle(cr, x0, tracksTop, x1 - x0, bottom - tracksTop);
    cairo_fill(cr);
  }
  for (const json& marker : session.document()["markers"]) {
    double x = c.x(marker["time"]);
    if (x < kLane || x > kWidth) continue;
    color(cr, 0xE76F51);
    cairo_rectangle(cr, x, kHeader, 1.5, bottom - kHeader);
    cairo_fill(cr);
    text(cr, x + 3, bottom + 14, cut(marker["name"], 24), 11, 0xE76F51);
  }
  double playhead = c.x(session.time());
  if (playhead >= kLane && playhead <= kWidth) {
    color(cr, 0xFF3B30);
    cairo_rectangle(cr, playhead - 1, kHeader, 2, bottom - kHeader);
    cairo_fill(cr);
  }
}

std::string encodePNG(cairo_surface_t* surface) {
  cairo_surface_flush(surface);
  std::string png;
  cairo_surface_write_to_png_stream(
      surface,
      [](void* closure, const unsigned char* data, unsigned int length) {
        static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
        return CAIRO_STATUS_SUCCESS;
      },
      &png);
  return png;
}

}  // namespace

std::string snapshotPNG(const Session& session) {
  const json& tracks = session.document()["tracks"];
  int shown = int(std::min<std::size_t>(tracks.size(), kMaxTracks));
  double tracksTop = kHeader + kRuler, bottom = tracksTop + std::max(1, shown) * kTrackHeight;
  std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)> surface(
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, kWidth, int(bottom) + 24), cairo_surface_destroy);
  std::unique_ptr<cairo_t, void (*)(cairo_t*)> context(cairo_create(surface.get()), cairo_destroy);
  cairo_t* cr = context.get();
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  color(cr, 0x1E2126);
  cairo_paint(cr);

  double duration = projectDuration(session.document());
  Canvas c{cr, 0, duration > 0 ? duration * 1.05 : 10.0};
  if (session.zoomEnd > session.zoomStart) c.start = session.zoomStart, c.end = session.zoomEnd;
  drawTitle(c, session, duration);
  drawRuler(c, session, bottom);
  for (int t = 0; t < shown; ++t) drawTrack(c, session, t, tracksTop + t * kTrackHeight);
  if (tracks.empty())
    text(cr, kLane + 20, tracksTop + kTrackHeight / 2.0, "No tracks: import audio or add a track", 14,
         0xA0A6AE);
  if (int(tracks.size()) > shown)
    text(cr, 8, bottom + 16, "+" + std::to_string(tracks.size() - std::size_t(shown)) + " more tracks", 11,
         0xA0A6AE);
  drawOverlays(c, session, tracksTop, bottom);
  return encodePNG(surface.get());
}

}  // namespace tondrel::sim
