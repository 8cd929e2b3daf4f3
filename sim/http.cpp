#include "http.hpp"

#include <httplib.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>

#include "audio.hpp"
#include "edit.hpp"
#include "render.hpp"
#include "snapshot.hpp"
#include "catalogue.hpp"

namespace tondrel::sim {

namespace {

void answer(httplib::Response& response, int status, const json& body) {
  response.status = status;
  response.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

// Copying a JSON value recurses once per level; nothing the editor reads is more than a few
// levels deep, so deeper text is refused before it is parsed.
void checkDepth(const std::string& text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > 64) throw SimError("the JSON is nested more than 64 levels deep");
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
}

json bodyOf(const httplib::Request& request) {
  if (request.body.empty()) return json::object();
  checkDepth(request.body);
  try {
    json body = json::parse(request.body);
    if (!body.is_object()) throw SimError("the body must be a JSON object");
    return body;
  } catch (const json::parse_error& error) {
    throw SimError(std::string("the body is not valid JSON: ") + error.what());
  }
}

std::string stringArgument(const json& body, const char* key) {
  if (!body.contains(key) || !body[key].is_string() || body[key].get<std::string>().empty())
    throw SimError(std::string(key) + " must be a non-empty string");
  return body[key];
}

std::string absolutePath(const json& body, const char* key) {
  std::string path = stringArgument(body, key);
  if (!std::filesystem::path(path).is_absolute())
    throw SimError(std::string(key) + " must be an absolute path");
  return path;
}

double queryNumber(const httplib::Request& request, const char* key, double fallback) {
  if (!request.has_param(key)) return fallback;
  std::string text = request.get_param_value(key);
  try {
    std::size_t used = 0;
    double value = std::stod(text, &used);
    if (used == text.size() && std::isfinite(value)) return value;
  } catch (const std::exception&) {
  }
  throw SimError(std::string(key) + " must be a number, got \"" + text + "\"");
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

bool isProjectFile(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  return extension == ".tondrel" || extension == ".json";
}

json help() {
  auto endpoint = [](const char* method, const char* path, const char* what) {
    return json{{"method", method}, {"path", path}, {"description", what}};
  };
  return {{"name", "tondrel-editor-sim"},
          {"about",
           "A headless stand-in for the Tondrel editor's local HTTP API. Times are seconds, tracks 0-based "
           "indexes or UUIDs, clips and notes UUIDs. Errors answer 4xx with {\"error\": message}."},
          {"endpoints",
           {endpoint("GET", "/v1/state", "Transport, selection, undo labels, file and dirty flag."),
            endpoint("GET", "/v1/document",
                     "The project: sampleRate, tempo, masterGainDB, tracks (clips, notes), markers."),
            endpoint("PUT", "/v1/document",
                     "Replace the project with the body, as one undo step; ?save=1 also saves it."),
            endpoint("GET", "/v1/help", "This reference."),
            endpoint("POST", "/v1/edit",
                     "{ops: [...], label?}: apply the operations below atomically as one undo step."),
            endpoint("POST", "/v1/open",
                     "{path}: open a .tondrel project (JSON) or an audio file as a new project."),
            endpoint("POST", "/v1/import",
                     "{path, track?, at?}: add an audio file as a clip; a new track when track is omitted."),
            endpoint("POST", "/v1/export",
                     "{path, format?, sampleRate?, bitDepth?, bitRateKbps?, channels?, normalization?, "
                     "range?, stems?}: "
                     "render the mix (wav, aiff, caf, flac, alac, mp3)."),
            endpoint("POST", "/v1/transport",
                     "{action: play|pause|toggle|stop|rewind|seek|loop|loopOff, time?, range?}"),
            endpoint("POST", "/v1/select",
                     "{clips?, track?, range?, fit?}: members given replace that part; {} clears."),
            endpoint("POST", "/v1/undo", "Undo the last step."),
            endpoint("POST", "/v1/redo", "Redo the last undone step."),
            endpoint("POST", "/v1/save",
                     "{path?}: save the project as JSON, at path or where it was opened or saved."),
            endpoint("GET", "/v1/snapshot.png", "A PNG picture of the session."),
            endpoint("GET", "/v1/waveform?path=&bins=200", "Peak and RMS per bin of an audio file."),
            endpoint("GET", "/v1/silences?path=&thresholdDB=-42&minDuration=0.15",
                     "Intervals quieter than thresholdDB for at least minDuration seconds.")}},
          {"editOperations", editReference()},
          {"osc", "The simulator takes no OSC input; oscInPort is null."}};
}

// While playing, the meters show the mix's peaks over the 50 ms at the playhead.
json stateWithMeters(const Session& session) {
  json state = session.state();
  if (!state["playing"].get<bool>()) return state;
  try {
    constexpr std::size_t frames = 2400;
    std::vector<float> block(2 * frames);
    Mixer(session.document(), 48000).render(state["time"].get<double>(), frames, block.data());
    float left = 0, right = 0;
    for (std::size_t i = 0; i < frames; ++i)
      left = std::max(left, std::abs(block[2 * i])), right = std::max(right, std::abs(block[2 * i + 1]));
    state["peakLeft"] = std::round(left * 1e4) / 1e4;
    state["peakRight"] = std::round(right * 1e4) / 1e4;
  } catch (const SimError&) {
    // A clip whose file has gone plays as silence here; exports report it.
  }
  return state;
}

json openFile(Session& session, const std::string& path) {
  if (isProjectFile(path)) {
    std::ifstream in(path, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in) throw SimError("cannot read " + path);
    checkDepth(text);
    json parsed = json::parse(text, nullptr, false);
    if (parsed.is_discarded()) throw SimError(path + " is not a JSON project file");
    session.load(normalizedDocument(parsed), path);
  } else {
    auto audio = loadAudio(path);
    json document = emptyDocument();
    document["sampleRate"] = audio->sampleRate;
    document["tracks"] = json::array(
        {{{"name", std::filesystem::path(path).stem().string()},
          {"clips",
           {{{"path", path}, {"duration", audio->duration()}, {"sourceDuration", audio->duration()}}}}}});
    session.load(normalizedDocument(document), std::nullopt);
  }
  return {{"ok", true},
          {"file", session.file ? json(*session.file) : json(nullptr)},
          {"tracks", session.document()["tracks"].size()},
          {"duration", projectDuration(session.document())}};
}

json importFile(Session& session, const json& body) {
  std::string path = stringArgument(body, "path");
  json ops = json::array();
  json clip = {{"op", "clip.add"}, {"path", path}};
  if (body.contains("at") && !body["at"].is_null()) clip["offset"] = body["at"];
  if (body.contains("track") && !body["track"].is_null()) {
    clip["track"] = body["track"];
  } else {
    ops.push_back({{"op", "track.add"}, {"name", std::filesystem::path(path).stem().string()}});
    clip["track"] = session.document()["tracks"].size();
  }
  ops.push_back(clip);
  json result = applyEdit(
      session, {{"ops", ops}, {"label", "Import " + std::filesystem::path(path).filename().string()}});
  result["clip"] = result["created"].back();
  return result;
}

}  // namespace

void installRoutes(httplib::Server& server, Session& session, std::mutex& lock) {
  using Handler = std::function<json(const httplib::Request&)>;
  auto route = [&lock](Handler handler) {
    return [&lock, handler](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard guard(lock);
      try {
        answer(response, 200, handler(request));
      } catch (const SimError& error) {
        answer(response, error.status, {{"error", error.what()}});
      } catch (const json::exception& error) {
        answer(response, 400, {{"error", std::string("malformed request: ") + error.what()}});
      } catch (const std::exception& error) {
        answer(response, 500, {{"error", std::string("the simulator failed: ") + error.what()}});
      }
    };
  };

  server.Get("/v1/state", route([&](const httplib::Request&) { return stateWithMeters(session); }));
  server.Get("/v1/document", route([&](const httplib::Request&) { return session.document(); }));
  server.Put("/v1/document", route([&](const httplib::Request& request) {
               json document = normalizedDocument(bodyOf(request));
               bool save = request.has_param("save") && request.get_param_value("save") != "0";
               if (save && !session.file)
                 throw SimError("save=1 needs a project file: save with a path first");
               session.commit(document, "Replace Document");
               if (save) saveDocument(session, *session.file);
               return json{{"ok", true}, {"tracks", document["tracks"].size()}, {"saved", save}};
             }));
  server.Get("/v1/help", route([](const httplib::Request&) { return help(); }));
  server.Post("/v1/edit",
              route([&](const httplib::Request& request) { return applyEdit(session, bodyOf(request)); }));
  server.Post("/v1/open", route([&](const httplib::Request& request) {
                return openFile(session, absolutePath(bodyOf(request), "path"));
              }));
  server.Post("/v1/import",
              route([&](const httplib::Request& request) { return importFile(session, bodyOf(request)); }));
  server.Post("/v1/export", route([&](const httplib::Request& request) {
                return exportAudio(session.document(), bodyOf(request));
              }));
  server.Post("/v1/transport", route([&](const httplib::Request& request) {
                session.transport(bodyOf(request));
                json state = session.state();
                return json{{"ok", true},
                            {"playing", state["playing"]},
                            {"time", state["time"]},
                            {"loopRange", state["loopRange"]}};
              }));
  server.Post("/v1/select", route([&](const httplib::Request& request) {
                session.select(bodyOf(request));
                json state = session.state();
                return json{{"ok", true},
                            {"selectedClips", state["selectedClips"]},
                            {"selectedTrack", state["selectedTrack"]},
                            {"selectionRange", state["selectionRange"]}};
              }));
  server.Post("/v1/undo", route([&](const httplib::Request&) {
                json label = session.state()["undoLabel"];
                session.undo();
                return json{{"ok", true},
                            {"undone", label},
                            {"undoLabel", session.state()["undoLabel"]},
                            {"redoLabel", session.state()["redoLabel"]}};
              }));
  server.Post("/v1/redo", route([&](const httplib::Request&) {
                json label = session.state()["redoLabel"];
                session.redo();
                return json{{"ok", true},
                            {"redone", label},
                            {"undoLabel", session.state()["undoLabel"]},
                            {"redoLabel", session.state()["redoLabel"]}};
              }));
  server.Post(
      "/v1/save", route([&](const httplib::Request& request) {
        json body = bodyOf(request);
        std::string path;
        if (body.contains("path") && body["path"].is_string() && !body["path"].get<std::string>().empty())
          path = absolutePath(body, "path");
        else if (session.file)
          path = *session.file;
        else
          throw SimError("the project has no file yet: give path");
        saveDocument(session, path);
        return json{{"ok", true}, {"file", path}};
      }));
  server.Get("/v1/snapshot.png", [&](const httplib::Request&, httplib::Response& response) {
    std::lock_guard guard(lock);
    try {
      response.set_content(snapshotPNG(session), "image/png");
    } catch (const std::exception& error) {
      answer(response, 500, {{"error", std::string("cannot draw the snapshot: ") + error.what()}});
    }
  });
  server.Get("/v1/waveform", route([&](const httplib::Request& request) {
               if (!request.has_param("path")) throw SimError("path is required");
               double bins = queryNumber(request, "bins", 200);
               if (bins != std::trunc(bins) || bins < 1 || bins > 100000)
                 throw SimError("bins must be an integer from 1 to 100000");
               return waveform(session.resolvedPath(request.get_param_value("path")), int(bins));
             }));
  server.Get("/v1/silences", route([&](const httplib::Request& request) {
               if (!request.has_param("path")) throw SimError("path is required");
               return silences(session.resolvedPath(request.get_param_value("path")),
                               queryNumber(request, "thresholdDB", -42),
                               queryNumber(request, "minDuration", 0.15));
             }));

  server.set_error_handler([](const httplib::Request& request, httplib::Response& response) {
    if (!response.body.empty()) return;
    std::string message =
        response.status == 404
            ? "no such endpoint: " + request.method + " " + request.path + "; GET /v1/help lists them"
            : "the request could not be read (HTTP status " + std::to_string(response.status) + ")";
    answer(response, response.status, {{"error", message}});
  });
  server.set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
    answer(response, 500, {{"error", "the simulator failed on this request"}});
  });
  server.set_payload_max_length(std::size_t(256) << 20);
}

}  // namespace tondrel::sim
