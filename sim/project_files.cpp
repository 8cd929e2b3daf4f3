#include "project_files.hpp"

#include <cmath>
#include <filesystem>
#include <fstream>

#include "audio.hpp"
#include "edit.hpp"

namespace tondrel::sim {

namespace {

bool isProjectFile(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  return extension == ".tondrel" || extension == ".json";
}

json readProject(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in) throw SimError("cannot read " + path);
  checkDepth(text);
  json parsed = json::parse(text, nullptr, false);
  if (parsed.is_discarded()) throw SimError(path + " is not a JSON project file");
  return normalizedDocument(parsed);
}

json audioProject(const std::string& path) {
  auto audio = loadAudio(path);
  double length = audio->duration();
  json document = emptyDocument();
  document["sampleRate"] = audio->sampleRate;
  document["tracks"] =
      json::array({{{"name", std::filesystem::path(path).stem().string()},
                    {"clips", {{{"path", path}, {"duration", length}, {"sourceDuration", length}}}}}});
  return normalizedDocument(document);
}

}  // namespace

json openFile(Session& session, const std::string& path) {
  if (isProjectFile(path))
    session.load(readProject(path), path);
  else
    session.load(audioProject(path), std::nullopt);
  return {{"ok", true},
          {"file", session.file ? json(*session.file) : json(nullptr)},
          {"tracks", session.document()["tracks"].size()},
          {"duration", projectDuration(session.document())}};
}

void saveDocument(Session& session, const std::string& path) {
  std::string temporary = path + ".saving";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << session.document().dump(2) << '\n';
    if (!out.flush()) {
      std::error_code ignored;
      std::filesystem::remove(temporary, ignored);
      throw SimError("cannot write " + path);
    }
  }
  std::error_code error;
  std::filesystem::rename(temporary, path, error);
  if (error) throw SimError("cannot write " + path + ": " + error.message());
  session.file = path;
  session.markSaved();
}

// The import runs as a track.add (without a track) and a clip.add, but its answers and
// refusals speak of what the agent sent: path, track and at.
json importFile(Session& session, const json& body) {
  if (!body.contains("path") || !body["path"].is_string() || body["path"].get<std::string>().empty())
    throw SimError("path must be a non-empty string");
  std::string path = body["path"];
  json clip = {{"op", "clip.add"}, {"path", path}};
  if (body.contains("at") && !body["at"].is_null()) {
    if (!body["at"].is_number()) throw SimError("at must be a number of seconds");
    clip["offset"] = checkedTime(body["at"].get<double>(), "at");
  }
  json ops = json::array();
  const json& track = body.contains("track") ? body["track"] : json(nullptr);
  if (track.is_null()) {
    ops.push_back({{"op", "track.add"}, {"name", std::filesystem::path(path).stem().string()}});
    clip["track"] = session.document()["tracks"].size();
  } else if ((track.is_number() && track.get<double>() >= 0 &&
              std::trunc(track.get<double>()) == track.get<double>()) ||
             (track.is_string() && !track.get<std::string>().empty())) {
    clip["track"] = track;
  } else {
    throw SimError("track must be a 0-based track index or a track's UUID string");
  }
  ops.push_back(clip);
  std::string name = std::filesystem::path(path).filename().string();
  json result = applyOperations(session, ops, "Import " + name, "cannot import " + name);
  result["clip"] = result["created"].back();
  return result;
}

}  // namespace tondrel::sim
