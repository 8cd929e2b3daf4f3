#include "http.hpp"

#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "audio.hpp"
#include "catalogue.hpp"
#include "edit.hpp"
#include "export.hpp"
#include "mixer.hpp"
#include "project_files.hpp"
#include "snapshot.hpp"

namespace tondrel::sim {

namespace {

using httplib::Request;

void answer(httplib::Response& response, int status, const json& body) {
  response.status = status;
  response.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

json bodyOf(const Request& request) {
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

std::string absolutePath(const json& body, const char* key) {
  if (!body.contains(key) || !body[key].is_string() || body[key].get<std::string>().empty())
    throw SimError(std::string(key) + " must be a non-empty string");
  std::string path = body[key];
  if (!std::filesystem::path(path).is_absolute())
    throw SimError(std::string(key) + " must be an absolute path");
  return path;
}

double queryNumber(const Request& request, const char* key, double fallback) {
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

std::string queryPath(const Session& session, const Request& request) {
  if (!request.has_param("path")) throw SimError("path is required");
  return session.resolvedPath(request.get_param_value("path"));
}

// While playing, the meters show the mix's peaks over the 50 ms at the playhead.
json stateWithMeters(Session& session, const Request&) {
  json state = session.state();
  if (!state["playing"].get<bool>()) return state;
  try {
    constexpr std::size_t frames = kDefaultSampleRate / 20;
    std::vector<float> block(2 * frames);
    Mixer(session.document(), kDefaultSampleRate).render(state["time"].get<double>(), frames, block.data());
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

json putDocument(Session& session, const Request& request) {
  json document = normalizedDocument(bodyOf(request));
  bool save = request.has_param("save") && request.get_param_value("save") != "0";
  if (save && !session.file) throw SimError("save=1 needs a project file: save with a path first");
  session.commit(document, "Replace Document");
  if (save) saveDocument(session, *session.file);
  return {{"ok", true}, {"tracks", document["tracks"].size()}, {"saved", save}};
}

// The members of the state an answer repeats, after ok.
json stateMembers(const Session& session, std::initializer_list<const char*> keys) {
  json state = session.state(), out = {{"ok", true}};
  for (const char* key : keys) out[key] = state[key];
  return out;
}

json transport(Session& session, const Request& request) {
  session.transport(bodyOf(request));
  return stateMembers(session, {"playing", "time", "loopRange"});
}

json select(Session& session, const Request& request) {
  session.select(bodyOf(request));
  return stateMembers(session, {"selectedClips", "selectedTrack", "selectionRange"});
}

template <bool undo>
json history(Session& session, const Request&) {
  json label = session.state()[undo ? "undoLabel" : "redoLabel"];
  undo ? session.undo() : session.redo();
  json out = stateMembers(session, {"undoLabel", "redoLabel"});
  out[undo ? "undone" : "redone"] = label;
  return out;
}

json save(Session& session, const Request& request) {
  json body = bodyOf(request);
  std::string path;
  if (body.contains("path") && body["path"].is_string() && !body["path"].get<std::string>().empty())
    path = absolutePath(body, "path");
  else if (session.file)
    path = *session.file;
  else
    throw SimError("the project has no file yet: give path");
  saveDocument(session, path);
  return {{"ok", true}, {"file", path}};
}

json snapshot(Session& session, const Request&) {
  std::string png = snapshotPNG(session);
  return json::binary(std::vector<std::uint8_t>(png.begin(), png.end()));
}

json waveformOf(Session& session, const Request& request) {
  std::string path = queryPath(session, request);
  double bins = queryNumber(request, "bins", 200);
  if (bins != std::trunc(bins) || bins < 1 || bins > 100000)
    throw SimError("bins must be an integer from 1 to 100000");
  return waveform(path, int(bins));
}

json silencesOf(Session& session, const Request& request) {
  return silences(queryPath(session, request), queryNumber(request, "thresholdDB", -42),
                  queryNumber(request, "minDuration", 0.15));
}

json help(Session&, const Request&);

// Every endpoint once: what serves it, and what GET /v1/help says of it.
struct Endpoint {
  const char* method;
  const char* path;
  const char* query;  // shown in the help only
  const char* description;
  json (*handle)(Session&, const Request&);
};

const Endpoint kEndpoints[] = {
    {"GET", "/v1/state", "", "Transport, selection, undo labels, file and dirty flag.", stateWithMeters},
    {"GET", "/v1/document", "",
     "The project: sampleRate, tempo, masterGainDB, tracks (clips, notes), markers.",
     [](Session& s, const Request&) { return s.document(); }},
    {"PUT", "/v1/document", "", "Replace the project with the body, as one undo step; ?save=1 also saves it.",
     putDocument},
    {"GET", "/v1/help", "", "This reference.", help},
    {"POST", "/v1/edit", "", "{ops: [...], label?}: apply the operations below atomically as one undo step.",
     [](Session& s, const Request& r) { return applyEdit(s, bodyOf(r)); }},
    {"POST", "/v1/open", "", "{path}: open a .tondrel project (JSON) or an audio file as a new project.",
     [](Session& s, const Request& r) { return openFile(s, absolutePath(bodyOf(r), "path")); }},
    {"POST", "/v1/import", "",
     "{path, track?, at?}: add an audio file as a clip; a new track when track is omitted.",
     [](Session& s, const Request& r) { return importFile(s, bodyOf(r)); }},
    {"POST", "/v1/export", "",
     "{path, format?, sampleRate?, bitDepth?, bitRateKbps?, channels?, normalization?, range?, stems?}: "
     "render the mix (wav, aiff, caf, flac, alac, mp3).",
     [](Session& s, const Request& r) { return exportAudio(s.document(), bodyOf(r)); }},
    {"POST", "/v1/transport", "", "{action: play|pause|toggle|stop|rewind|seek|loop|loopOff, time?, range?}",
     transport},
    {"POST", "/v1/select", "", "{clips?, track?, range?, fit?}: members given replace that part; {} clears.",
     select},
    {"POST", "/v1/undo", "", "Undo the last step.", history<true>},
    {"POST", "/v1/redo", "", "Redo the last undone step.", history<false>},
    {"POST", "/v1/save", "", "{path?}: save the project as JSON, at path or where it was opened or saved.",
     save},
    {"GET", "/v1/snapshot.png", "", "A PNG picture of the session.", snapshot},
    {"GET", "/v1/waveform", "?path=&bins=200", "Peak and RMS per bin of an audio file.", waveformOf},
    {"GET", "/v1/silences", "?path=&thresholdDB=-42&minDuration=0.15",
     "Intervals quieter than thresholdDB for at least minDuration seconds.", silencesOf},
};

json help(Session&, const Request&) {
  json endpoints = json::array();
  for (const Endpoint& e : kEndpoints)
    endpoints.push_back(
        {{"method", e.method}, {"path", std::string(e.path) + e.query}, {"description", e.description}});
  return {{"name", "tondrel-editor-sim"},
          {"about",
           "A headless stand-in for the Tondrel editor's local HTTP API. Times are seconds, tracks 0-based "
           "indexes or UUIDs, clips and notes UUIDs. Errors answer 4xx with {\"error\": message}."},
          {"endpoints", endpoints},
          {"editOperations", editReference()},
          {"osc", "The simulator takes no OSC input; oscInPort is null."}};
}

// Each request runs inside its own catch, so no input stops the process.
void answerFrom(const Endpoint& endpoint, Session& session, const Request& request,
                httplib::Response& response) {
  try {
    json result = endpoint.handle(session, request);
    if (result.is_binary()) {
      response.status = 200;
      response.set_content(std::string(result.get_binary().begin(), result.get_binary().end()), "image/png");
    } else {
      answer(response, 200, result);
    }
  } catch (const SimError& error) {
    answer(response, error.status, {{"error", error.what()}});
  } catch (const json::exception& error) {
    answer(response, 400, {{"error", std::string("malformed request: ") + error.what()}});
  } catch (const std::exception& error) {
    answer(response, 500, {{"error", std::string("the simulator failed: ") + error.what()}});
  }
}

void noSuchEndpoint(const Request& request, httplib::Response& response) {
  answer(
      response, 404,
      {{"error", "no such endpoint: " + request.method + " " + request.path + "; GET /v1/help lists them"}});
}

void configureConnections(httplib::Server& server) {
  // cpp-httplib binds with SO_REUSEPORT, which lets a second simulator share the port and take
  // half the connections; SO_REUSEADDR alone still lets a restart reuse the port at once.
  // TCP_NODELAY, inherited by accepted sockets, keeps each small answer from waiting out the
  // client's delayed ACK on a kept-alive connection.
  server.set_socket_options([](auto socket) {
    int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  });
  server.set_tcp_nodelay(true);
  server.set_keep_alive_max_count(1000000);  // the default of 5 reconnects every fifth call
  server.set_payload_max_length(std::size_t(256) << 20);
}

}  // namespace

void installRoutes(httplib::Server& server, Session& session, ServeRequest serve) {
  configureConnections(server);
  for (const Endpoint& endpoint : kEndpoints) {
    httplib::Server::Handler handler = [&endpoint, &session, serve](const Request& request,
                                                                    httplib::Response& response) {
      serve(request, response, [&] { answerFrom(endpoint, session, request, response); });
    };
    std::string method = endpoint.method;
    if (method == "GET")
      server.Get(endpoint.path, handler);
    else if (method == "PUT")
      server.Put(endpoint.path, handler);
    else
      server.Post(endpoint.path, handler);
  }
  // Registered after the endpoints, so only what none of them takes comes here.
  httplib::Server::Handler unknown = [serve](const Request& request, httplib::Response& response) {
    serve(request, response, [&] { noSuchEndpoint(request, response); });
  };
  const char* anyPath = R"(/v1/.*)";
  server.Get(anyPath, unknown).Post(anyPath, unknown).Put(anyPath, unknown).Delete(anyPath, unknown);
  server.Patch(anyPath, unknown);
  server.set_error_handler([](const Request& request, httplib::Response& response) {
    if (!response.body.empty()) return;
    if (response.status == 404) return noSuchEndpoint(request, response);
    answer(
        response, response.status,
        {{"error", "the request could not be read (HTTP status " + std::to_string(response.status) + ")"}});
  });
  server.set_exception_handler([](const Request&, httplib::Response& response, std::exception_ptr) {
    answer(response, 500, {{"error", "the simulator failed on this request"}});
  });
}

}  // namespace tondrel::sim
