#include "edit.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "editor.hpp"
#include "render.hpp"
#include "validate.hpp"

namespace tondrel::sim {

std::size_t Editor::trackIndex(const json& reference) {
  if (reference.is_string()) {
    for (std::size_t i = 0; i < tracks().size(); ++i)
      if (tracks()[i]["id"] == reference) return i;
    fail("no track with id " + reference.dump());
  }
  double index = reference.get<double>();
  if (index < 0 || index >= double(tracks().size()))
    fail("no track " + reference.dump() + ": the project has " + std::to_string(tracks().size()) + " tracks");
  return std::size_t(index);
}

std::pair<std::size_t, std::size_t> Editor::findClip(const json& id) {
  for (std::size_t t = 0; t < tracks().size(); ++t)
    for (std::size_t c = 0; c < tracks()[t]["clips"].size(); ++c)
      if (tracks()[t]["clips"][c]["id"] == id) return {t, c};
  fail("no clip with id " + id.dump());
}

std::pair<std::size_t, std::size_t> Editor::findNote(const json& id) {
  for (std::size_t t = 0; t < tracks().size(); ++t)
    for (std::size_t n = 0; n < tracks()[t]["notes"].size(); ++n)
      if (tracks()[t]["notes"][n]["id"] == id) return {t, n};
  fail("no note with id " + id.dump());
}

double Editor::number(const json& op, const char* key, double fallback, double low, double high) {
  if (!op.contains(key) || op[key].is_null()) return fallback;
  double value = op[key].get<double>();
  if (!(value >= low && value <= high))
    fail(std::string(key) + " must lie between " + show(low) + " and " + show(high) + ", got " +
         op[key].dump());
  return value;
}

long long Editor::integer(const json& op, const char* key, long long fallback, long long low,
                          long long high) {
  return static_cast<long long>(number(op, key, double(fallback), double(low), double(high)));
}

double Editor::time(const json& op, const char* key, double fallback) {
  return number(op, key, fallback, 0, kMaxTime);
}

std::string Editor::shape(const json& op, const char* key, const std::string& fallback) {
  if (!op.contains(key) || op[key].is_null()) return fallback;
  std::string value = op[key];
  for (const char* known : {"cosine", "linear", "exponential", "logarithmic"})
    if (value == known) return value;
  fail(std::string(key) + " must be \"cosine\", \"linear\", \"exponential\" or \"logarithmic\", got \"" +
       value + "\"");
}

std::pair<double, double> Editor::range(const json& op) {
  double start = time(op, "start", 0), end = time(op, "end", 0);
  if (end <= start) fail("end (" + show(end) + ") must come after start (" + show(start) + ")");
  return {start, end};
}

json Editor::piece(const json& clip, double from, double to, bool keepFades) {
  const double offset = clip["offset"], duration = clip["duration"], sourceStart = clip["sourceStart"];
  const double sourceDuration = clip["sourceDuration"];
  const double a = from - offset, b = to - offset;
  double start = clip["reversed"].get<bool>() ? sourceStart + duration - b : sourceStart + a;
  constexpr double slack = 1e-9;
  if (start < -slack || start + (b - a) > sourceDuration + slack)
    fail("the source of clip " + clip["id"].dump() + " covers only " + show(sourceDuration) +
         " s; the clip cannot reach from " + show(from) + " to " + show(to));
  json out = clip;
  out["offset"] = from;
  out["duration"] = b - a;
  out["sourceStart"] = std::max(0.0, start);
  double fadeIn = clip["fadeIn"], fadeOut = clip["fadeOut"];
  out["fadeIn"] = keepFades || std::abs(a) < slack ? std::min(fadeIn, b - a) : 0.0;
  out["fadeOut"] = keepFades || std::abs(b - duration) < slack ? std::min(fadeOut, b - a) : 0.0;
  return out;
}

void Editor::rippleFrom(json& track, double from, double by) {
  for (json& clip : track["clips"])
    if (clip["offset"].get<double>() >= from - 1e-9)
      clip["offset"] = std::max(0.0, clip["offset"].get<double>() - by);
  for (json& note : track["notes"])
    if (note["start"].get<double>() >= from - 1e-9)
      note["start"] = std::max(0.0, note["start"].get<double>() - by);
}

void Editor::removeRange(double start, double end, bool ripple) {
  for (json& track : tracks()) {
    if (track["locked"].get<bool>()) continue;
    json clips = json::array();
    for (const json& clip : track["clips"]) {
      double from = clip["offset"], to = clipEnd(clip);
      if (to <= start || from >= end) {
        clips.push_back(clip);
        continue;
      }
      if (from < start) clips.push_back(piece(clip, from, start));
      if (to > end) {
        json right = piece(clip, end, to);
        if (from < start) right["id"] = newUuid();
        clips.push_back(right);
      }
    }
    track["clips"] = clips;
    json notes = json::array();
    for (const json& note : track["notes"])
      if (note["start"].get<double>() < start || note["start"].get<double>() >= end) notes.push_back(note);
    track["notes"] = notes;
    if (ripple) rippleFrom(track, end, end - start);
  }
  if (ripple)
    for (json& marker : doc["markers"]) {
      double t = marker["time"];
      if (t >= end)
        marker["time"] = t - (end - start);
      else if (t > start)
        marker["time"] = start;
    }
}

namespace {

const std::map<std::string, Handler, std::less<>>& handlers() {
  static const auto table = [] {
    std::map<std::string, Handler, std::less<>> map;
    addTrackNoteOperations(map);
    addClipRangeOperations(map);
    return map;
  }();
  return table;
}

// Pastes, ripples and moves may push material along; none may end past the timeline.
void checkBounds(Editor& e) {
  for (const json& track : e.tracks()) {
    for (const json& clip : track["clips"])
      if (clipEnd(clip) > kMaxTime)
        e.fail("it would move clip " + clip["id"].dump() + " past the timeline's end (24 h)");
    for (const json& note : track["notes"])
      if (note["start"].get<double>() + note["duration"].get<double>() > kMaxTime)
        e.fail("it would move note " + note["id"].dump() + " past the timeline's end (24 h)");
  }
}

json newTrack(Editor& e, const std::string& kind, const std::string& name) {
  json track = normalizedDocument({{"tracks", {{{"kind", kind}}}}})["tracks"][0];
  track["name"] = name.empty() ? "Track " + std::to_string(e.tracks().size() + 1) : name;
  return track;
}

std::size_t midiTrack(Editor& e, const json& op) {
  std::size_t index;
  if (op.contains("track") && !op["track"].is_null()) {
    index = e.trackIndex(op["track"]);
  } else {
    auto selected = e.session.selectedTrack;
    if (selected && std::size_t(*selected) < e.tracks().size() &&
        e.tracks()[std::size_t(*selected)]["kind"] == "midi")
      return std::size_t(*selected);
    for (index = 0; index < e.tracks().size() && e.tracks()[index]["kind"] != "midi"; ++index) {
    }
    if (index == e.tracks().size())
      e.fail("no MIDI track to put notes on; add one with track.add and kind \"midi\"");
  }
  if (e.tracks()[index]["kind"] != "midi")
    e.fail("track " + std::to_string(index) + " is an audio track, not MIDI");
  return index;
}

// The notes an operation names: its "notes", else every note of its "track".
std::vector<json*> namedNotes(Editor& e, const json& op) {
  std::vector<json*> notes;
  if (op.contains("notes") && !op["notes"].is_null()) {
    for (const json& id : op["notes"]) notes.push_back(&e.note(id));
  } else if (op.contains("track") && !op["track"].is_null()) {
    for (json& note : e.track(op["track"])["notes"]) notes.push_back(&note);
  } else {
    e.fail("name the notes, or a track whose notes to change");
  }
  return notes;
}

void sortNotes(json& track) {
  std::stable_sort(track["notes"].begin(), track["notes"].end(), [](const json& a, const json& b) {
    return a["start"].get<double>() < b["start"].get<double>();
  });
}

}  // namespace

void addTrackNoteOperations(std::map<std::string, Handler, std::less<>>& map) {
  map["track.add"] = [](Editor& e, const json& op) {
    long long at = e.integer(op, "at", static_cast<long long>(e.tracks().size()), 0,
                             static_cast<long long>(e.tracks().size()));
    json track = newTrack(e, op.value("kind", "audio"), op.value("name", ""));
    track["program"] = e.integer(op, "program", 0, 0, 127);
    track["channel"] = e.integer(op, "channel", 0, 0, 15);
    track["isDrum"] = op.value("isDrum", false);
    e.created.push_back(track["id"]);
    e.tracks().insert(e.tracks().begin() + at, track);
  };
  map["track.remove"] = [](Editor& e, const json& op) {
    e.tracks().erase(e.tracks().begin() + long(e.trackIndex(op["track"])));
  };
  map["track.duplicate"] = [](Editor& e, const json& op) {
    std::size_t index = e.trackIndex(op["track"]);
    json copy = e.tracks()[index];
    copy["id"] = newUuid();
    copy["name"] = copy["name"].get<std::string>() + " copy";
    for (json& clip : copy["clips"]) clip["id"] = newUuid();
    for (json& note : copy["notes"]) note["id"] = newUuid();
    e.created.push_back(copy["id"]);
    e.tracks().insert(e.tracks().begin() + long(index) + 1, copy);
  };
  map["track.move"] = [](Editor& e, const json& op) {
    long long from = static_cast<long long>(e.trackIndex(op["track"])),
              last = static_cast<long long>(e.tracks().size()) - 1;
    if (!op.contains("to") && !op.contains("delta"))
      e.fail("give to (an index) or delta (a number of places)");
    long long to = op.contains("to") ? e.integer(op, "to", 0, 0, last)
                                     : from + e.integer(op, "delta", 0, -1000000, 1000000);
    to = std::clamp(to, 0LL, last);
    json track = e.tracks()[std::size_t(from)];
    e.tracks().erase(e.tracks().begin() + from);
    e.tracks().insert(e.tracks().begin() + to, track);
  };
  map["track.set"] = [](Editor& e, const json& op) {
    json& track = e.track(op["track"]);
    if (op.contains("name")) track["name"] = op["name"];
    track["gainDB"] = e.number(op, "gainDB", track["gainDB"], -96, 24);
    track["pan"] = e.number(op, "pan", track["pan"], -1, 1);
    for (const char* key : {"mute", "solo", "locked", "stereoSplit", "pianoRollExpanded"})
      if (op.contains(key) && op[key].is_boolean()) track[key] = op[key];
    track["program"] = e.integer(op, "program", track["program"], 0, 127);
    track["channel"] = e.integer(op, "channel", track["channel"], 0, 15);
    track["transpose"] = e.integer(op, "transpose", track["transpose"], -48, 48);
  };
  map["track.bounceToAudio"] = [](Editor& e, const json& op) {
    std::size_t index = e.trackIndex(op["track"]);
    json& track = e.tracks()[index];
    if (track["kind"] != "midi") e.fail("track " + std::to_string(index) + " is already an audio track");
    if (!e.session.file) e.fail("save the project first: the bounce is written next to the project file");
    std::string path =
        (std::filesystem::path(*e.session.file).parent_path() / ("bounce-" + newUuid().substr(0, 8) + ".wav"))
            .string();
    double length = 0;
    try {
      length = bounceTrack(e.doc, index, path);
    } catch (const SimError& error) {
      e.fail(error.what());
    }
    json audio = newTrack(e, "audio", track["name"].get<std::string>() + " (bounced)");
    audio["gainDB"] = track["gainDB"];
    audio["pan"] = track["pan"];
    json clip = normalizedDocument(
        {{"tracks", {{{"clips", {{{"path", path}, {"duration", length}}}}}}}})["tracks"][0]["clips"][0];
    audio["clips"].push_back(clip);
    e.created.push_back(audio["id"]);
    e.created.push_back(clip["id"]);
    if (op.value("replace", false))
      e.tracks()[index] = audio;
    else
      e.tracks().insert(e.tracks().begin() + long(index) + 1, audio);
  };

  map["note.add"] = [](Editor& e, const json& op) {
    json& track = e.tracks()[midiTrack(e, op)];
    json note = {{"id", newUuid()},
                 {"pitch", e.integer(op, "pitch", 60, 0, 127)},
                 {"start", e.time(op, "start", 0)},
                 {"duration", e.number(op, "duration", e.beat(), 1e-3, kMaxTime)},
                 {"velocity", e.integer(op, "velocity", 100, 1, 127)}};
    e.created.push_back(note["id"]);
    track["notes"].push_back(note);
    sortNotes(track);
  };
  map["note.move"] = [](Editor& e, const json& op) {
    auto [t, n] = e.findNote(op["note"]);
    json note = e.tracks()[t]["notes"][n];
    note["start"] = e.time(op, "start", note["start"]);
    note["pitch"] = e.integer(op, "pitch", note["pitch"], 0, 127);
    std::size_t to = op.contains("track") ? midiTrack(e, op) : t;
    e.tracks()[t]["notes"].erase(e.tracks()[t]["notes"].begin() + long(n));
    e.tracks()[to]["notes"].push_back(note);
    sortNotes(e.tracks()[to]);
  };
  map["note.trim"] = [](Editor& e, const json& op) {
    json& note = e.note(op["note"]);
    double start = note["start"], end = start + note["duration"].get<double>();
    double newStart = e.time(op, "start", start);
    double duration = e.number(op, "duration", end - newStart, 1e-3, kMaxTime);
    if (duration <= 0) e.fail("start must come before the note's end (" + show(end) + ")");
    note["start"] = newStart;
    note["duration"] = duration;
  };
  map["note.velocity"] = [](Editor& e, const json& op) {
    e.note(op["note"])["velocity"] = e.integer(op, "velocity", 100, 1, 127);
  };
  map["note.pitch"] = [](Editor& e, const json& op) {
    e.note(op["note"])["pitch"] = e.integer(op, "pitch", 60, 0, 127);
  };
  map["note.remove"] = [](Editor& e, const json& op) {
    for (const json& id : op["notes"]) {
      auto [t, n] = e.findNote(id);
      json& notes = e.tracks()[t]["notes"];
      double end = notes[n]["start"].get<double>() + notes[n]["duration"].get<double>();
      double length = notes[n]["duration"];
      notes.erase(notes.begin() + long(n));
      if (op.value("ripple", false))
        for (json& later : notes)
          if (later["start"].get<double>() >= end) later["start"] = later["start"].get<double>() - length;
    }
  };
  map["note.quantize"] = [](Editor& e, const json& op) {
    double grid = e.number(op, "subdivisionBeats", 0.25, 1.0 / 64, 64) * e.beat();
    for (json* note : namedNotes(e, op))
      (*note)["start"] = std::round((*note)["start"].get<double>() / grid) * grid;
  };
  map["note.transpose"] = [](Editor& e, const json& op) {
    long long semitones = e.integer(op, "semitones", 0, -127, 127);
    for (json* note : namedNotes(e, op)) {
      long long pitch = (*note)["pitch"].get<long long>() + semitones;
      if (pitch < 0 || pitch > 127)
        e.fail("transposing note " + (*note)["id"].dump() + " leaves the MIDI range 0-127");
      (*note)["pitch"] = pitch;
    }
  };

  map["tempo.set"] = [](Editor& e, const json& op) {
    json& tempo = e.doc["tempo"];
    tempo["bpm"] = e.number(op, "bpm", tempo["bpm"], 1, 999);
    tempo["numerator"] = e.integer(op, "numerator", tempo["numerator"], 1, 32);
    long long denominator = e.integer(op, "denominator", tempo["denominator"], 1, 32);
    if (denominator & (denominator - 1)) e.fail("denominator must be 1, 2, 4, 8, 16 or 32");
    tempo["denominator"] = denominator;
  };
  map["marker.add"] = [](Editor& e, const json& op) {
    json& markers = e.doc["markers"];
    json marker = {{"id", newUuid()},
                   {"name", op.value("name", "Marker " + std::to_string(markers.size() + 1))},
                   {"time", e.time(op, "time", 0)}};
    e.created.push_back(marker["id"]);
    markers.push_back(marker);
    std::stable_sort(markers.begin(), markers.end(), [](const json& a, const json& b) {
      return a["time"].get<double>() < b["time"].get<double>();
    });
  };
  map["marker.remove"] = [](Editor& e, const json& op) {
    json& markers = e.doc["markers"];
    const json& reference = op["marker"];
    for (std::size_t i = 0; i < markers.size(); ++i)
      if (reference.is_string() ? markers[i]["id"] == reference : double(i) == reference.get<double>()) {
        markers.erase(markers.begin() + long(i));
        return;
      }
    e.fail("no marker " + reference.dump() + ": the project has " + std::to_string(markers.size()) +
           " markers");
  };
  map["master.gain"] = [](Editor& e, const json& op) {
    e.doc["masterGainDB"] = e.number(op, "db", 0, -96, 24);
  };
}

json applyEdit(Session& session, const json& request) {
  if (!request.is_object() || !request.contains("ops"))
    throw SimError("the body must be an object with \"ops\", an array");
  const json& ops = request["ops"];
  validateOps(ops);
  std::string label;
  if (request.contains("label") && request["label"].is_string()) label = request["label"];
  if (label.empty())
    label = ops.size() == 1 ? ops[0]["op"].get<std::string>()
                            : "Edit (" + std::to_string(ops.size()) + " operations)";
  if (ops.empty()) return {{"ok", true}, {"applied", 0}, {"created", json::array()}};

  Editor editor{session, session.document(), session.clipboard, session.clipboardLength, json::array(), ""};
  for (std::size_t i = 0; i < ops.size(); ++i) {
    std::string name = ops[i]["op"];
    editor.at = "ops[" + std::to_string(i) + "] (" + name + ")";
    json op = ops[i];
    for (auto item = op.begin();
         item != op.end();)  // a null field counts as absent, as the validator took it
      item = item->is_null() ? op.erase(item) : std::next(item);
    handlers().at(name)(editor, op);
    checkBounds(editor);
  }
  session.commit(std::move(editor.doc), label);
  session.clipboard = std::move(editor.clipboard);
  session.clipboardLength = editor.clipboardLength;
  return {{"ok", true},
          {"label", label},
          {"applied", ops.size()},
          {"created", editor.created},
          {"duration", projectDuration(session.document())}};
}

}  // namespace tondrel::sim
