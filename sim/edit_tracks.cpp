// Track operations: add, remove, duplicate, move, set, and the bounce of a MIDI track to audio.
#include <algorithm>
#include <filesystem>

#include "editor.hpp"
#include "export.hpp"

namespace tondrel::sim {

namespace {

json namedTrack(Editor& e, const std::string& kind, const std::string& name) {
  return newTrack(
      {{"kind", kind}, {"name", name.empty() ? "Track " + std::to_string(e.tracks().size() + 1) : name}});
}

void add(Editor& e, const json& op) {
  auto count = static_cast<long long>(e.tracks().size());
  long long at = e.integer(op, "at", count, 0, count);
  json track = namedTrack(e, op.value("kind", "audio"), op.value("name", ""));
  track["program"] = e.integer(op, "program", 0, kProgram);
  track["channel"] = e.integer(op, "channel", 0, kChannel);
  track["isDrum"] = op.value("isDrum", false);
  e.created.push_back(track["id"]);
  e.tracks().insert(e.tracks().begin() + at, track);
}

void remove(Editor& e, const json& op) {
  e.tracks().erase(e.tracks().begin() + long(e.trackIndex(op["track"])));
}

void duplicate(Editor& e, const json& op) {
  std::size_t index = e.trackIndex(op["track"]);
  json copy = e.tracks()[index];
  copy["id"] = newUuid();
  copy["name"] = copy["name"].get<std::string>() + " copy";
  for (json& clip : copy["clips"]) clip["id"] = newUuid();
  for (json& note : copy["notes"]) note["id"] = newUuid();
  e.created.push_back(copy["id"]);
  e.tracks().insert(e.tracks().begin() + long(index) + 1, copy);
}

void move(Editor& e, const json& op) {
  auto from = static_cast<long long>(e.trackIndex(op["track"])),
       last = static_cast<long long>(e.tracks().size()) - 1;
  if (!op.contains("to") && !op.contains("delta")) e.fail("give to (an index) or delta (a number of places)");
  long long to = op.contains("to") ? e.integer(op, "to", 0, 0, last)
                                   : from + e.integer(op, "delta", 0, -1000000, 1000000);
  to = std::clamp(to, 0LL, last);
  json track = e.tracks()[std::size_t(from)];
  e.tracks().erase(e.tracks().begin() + from);
  e.tracks().insert(e.tracks().begin() + to, track);
}

void set(Editor& e, const json& op) {
  json& track = e.track(op["track"]);
  if (op.contains("name")) track["name"] = op["name"];
  track["gainDB"] = e.number(op, "gainDB", track["gainDB"], kGainDB);
  track["pan"] = e.number(op, "pan", track["pan"], kPan);
  for (const char* key : {"mute", "solo", "locked", "stereoSplit", "pianoRollExpanded"})
    if (op.contains(key)) track[key] = op[key];
  track["program"] = e.integer(op, "program", track["program"], kProgram);
  track["channel"] = e.integer(op, "channel", track["channel"], kChannel);
  track["transpose"] = e.integer(op, "transpose", track["transpose"], kTranspose);
}

// A bounce gets a name no file has yet, so that it never writes over audio a project uses.
std::string bouncePath(const std::string& projectFile) {
  std::filesystem::path folder = std::filesystem::path(projectFile).parent_path(), path;
  do path = folder / ("bounce-" + newUuid().substr(0, 8) + ".wav");
  while (std::filesystem::exists(path));
  return path.string();
}

void bounceToAudio(Editor& e, const json& op) {
  std::size_t index = e.trackIndex(op["track"]);
  json& track = e.tracks()[index];
  if (track["kind"] != "midi") e.fail("track " + std::to_string(index) + " is already an audio track");
  if (!e.session.file) e.fail("save the project first: the bounce is written next to the project file");
  std::string path = bouncePath(*e.session.file);
  double length = 0;
  try {
    length = bounceTrack(e.doc, index, path);
  } catch (const SimError& error) {
    e.fail(error.what());
  }
  json audio = namedTrack(e, "audio", track["name"].get<std::string>() + " (bounced)");
  audio["gainDB"] = track["gainDB"];
  audio["pan"] = track["pan"];
  json clip = newClip({{"path", path}, {"duration", length}});
  audio["clips"].push_back(clip);
  e.created.push_back(audio["id"]);
  e.created.push_back(clip["id"]);
  if (op.value("replace", false))
    e.tracks()[index] = audio;
  else
    e.tracks().insert(e.tracks().begin() + long(index) + 1, audio);
}

constexpr Operation kOperations[] = {
    {"track.add", add},   {"track.remove", remove}, {"track.duplicate", duplicate},
    {"track.move", move}, {"track.set", set},       {"track.bounceToAudio", bounceToAudio},
};

}  // namespace

std::span<const Operation> trackOperations() {
  return kOperations;
}

}  // namespace tondrel::sim
