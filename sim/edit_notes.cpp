// Note operations: MIDI notes added, moved, trimmed, removed, quantized and transposed.
#include <cmath>

#include "editor.hpp"

namespace tondrel::sim {

namespace {

std::size_t midiTrack(Editor& e, const json& op) {
  auto index = e.trackOfKind(op, "midi");
  if (!index) e.fail("no MIDI track to put notes on; add one with track.add and kind \"midi\"");
  return *index;
}

// The notes an operation names: its "notes", else every note of its "track".
std::vector<json*> namedNotes(Editor& e, const json& op) {
  std::vector<json*> notes;
  if (op.contains("notes")) {
    for (const json& id : op["notes"]) notes.push_back(&e.note(id));
  } else if (op.contains("track")) {
    for (json& note : e.track(op["track"])["notes"]) notes.push_back(&note);
  } else {
    e.fail("name the notes, or a track whose notes to change");
  }
  return notes;
}

void add(Editor& e, const json& op) {
  json& track = e.tracks()[midiTrack(e, op)];
  json note = newNote({{"pitch", e.integer(op, "pitch", 60, kPitch)},
                       {"start", e.time(op, "start", 0)},
                       {"duration", e.number(op, "duration", e.beat(), 1e-3, kMaxTime)},
                       {"velocity", e.integer(op, "velocity", 100, kVelocity)}});
  e.created.push_back(note["id"]);
  track["notes"].push_back(note);
  sortNotes(track);
}

void move(Editor& e, const json& op) {
  auto [t, n] = e.findNote(op["note"]);
  json note = e.tracks()[t]["notes"][n];
  note["start"] = e.time(op, "start", note["start"]);
  note["pitch"] = e.integer(op, "pitch", note["pitch"], kPitch);
  std::size_t to = op.contains("track") ? midiTrack(e, op) : t;
  e.tracks()[t]["notes"].erase(e.tracks()[t]["notes"].begin() + long(n));
  e.tracks()[to]["notes"].push_back(note);
  sortNotes(e.tracks()[to]);
}

void trim(Editor& e, const json& op) {
  json& note = e.note(op["note"]);
  double end = noteEnd(note);
  double start = e.time(op, "start", note["start"]);
  double duration = e.number(op, "duration", end - start, 1e-3, kMaxTime);
  if (duration <= 0) e.fail("start must come before the note's end (" + show(end) + ")");
  note["start"] = start;
  note["duration"] = duration;
}

void velocity(Editor& e, const json& op) {
  e.note(op["note"])["velocity"] = e.integer(op, "velocity", 100, kVelocity);
}

void pitch(Editor& e, const json& op) {
  e.note(op["note"])["pitch"] = e.integer(op, "pitch", 60, kPitch);
}

void remove(Editor& e, const json& op) {
  for (const json& id : op["notes"]) {
    auto [t, n] = e.findNote(id);
    json& notes = e.tracks()[t]["notes"];
    double end = noteEnd(notes[n]), length = notes[n]["duration"];
    notes.erase(notes.begin() + long(n));
    if (op.value("ripple", false))
      for (json& later : notes)
        if (later["start"].get<double>() >= end) later["start"] = later["start"].get<double>() - length;
  }
}

void quantize(Editor& e, const json& op) {
  double grid = e.number(op, "subdivisionBeats", 0.25, 1.0 / 64, 64) * e.beat();
  for (json* note : namedNotes(e, op))
    (*note)["start"] = std::round((*note)["start"].get<double>() / grid) * grid;
}

void transpose(Editor& e, const json& op) {
  long long semitones = e.integer(op, "semitones", 0, -127, 127);
  for (json* note : namedNotes(e, op)) {
    long long to = (*note)["pitch"].get<long long>() + semitones;
    if (to < kPitch.low || to > kPitch.high)
      e.fail("transposing note " + (*note)["id"].dump() + " leaves the MIDI range 0-127");
    (*note)["pitch"] = to;
  }
}

constexpr Operation kOperations[] = {
    {"note.add", add},           {"note.move", move},           {"note.trim", trim},
    {"note.velocity", velocity}, {"note.pitch", pitch},         {"note.remove", remove},
    {"note.quantize", quantize}, {"note.transpose", transpose},
};

}  // namespace

std::span<const Operation> noteOperations() {
  return kOperations;
}

}  // namespace tondrel::sim
