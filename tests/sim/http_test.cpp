// The simulator over HTTP, alone and as the editor behind the built tondrel-mcp.
#include "http.hpp"

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <fstream>
#include <optional>
#include <thread>

#include "process.hpp"
#include "sim_support.hpp"

namespace tondrel::sim::test {
namespace {

// The simulator on a free loopback port, in this process.
class RunningSim {
 public:
  RunningSim() : session_(0) {
    installRoutes(server_, session_, lock_);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~RunningSim() {
    server_.stop();
    thread_.join();
  }
  int port() const { return port_; }
  httplib::Client client() const { return httplib::Client("127.0.0.1", port_); }

 private:
  Session session_;
  std::mutex lock_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

// The local port of a socket, and of its peer; 0 where it has none.
std::pair<int, int> ports(int fd) {
  sockaddr_in local{}, peer{};
  socklen_t size = sizeof local;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0 || local.sin_family != AF_INET) return {0, 0};
  size = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return {ntohs(local.sin_port), 0};
  return {ntohs(local.sin_port), ntohs(peer.sin_port)};
}

// The simulator's end of the one connection this process holds open to it.
std::optional<int> acceptedSocket(int port) {
  for (int fd = 3; fd < 1024; ++fd)
    if (auto [local, peer] = ports(fd); local == port && peer != 0) return fd;
  return std::nullopt;
}

// Calls on a kept-alive connection go out at once and stay on that one connection.
TEST(Http, KeepsAConnectionForManyCallsWithoutDelayingAnswers) {
  RunningSim sim;
  auto client = sim.client();
  client.set_keep_alive(true);
  ASSERT_TRUE(client.Get("/v1/state"));
  auto first = acceptedSocket(sim.port());
  ASSERT_TRUE(first);
  int nodelay = 0;
  socklen_t size = sizeof nodelay;
  ASSERT_EQ(getsockopt(*first, IPPROTO_TCP, TCP_NODELAY, &nodelay, &size), 0);
  EXPECT_NE(nodelay, 0);
  int clientPort = ports(*first).second;
  for (int call = 0; call < 20; ++call) ASSERT_TRUE(client.Get("/v1/state"));
  auto last = acceptedSocket(sim.port());
  ASSERT_TRUE(last);
  EXPECT_EQ(ports(*last).second, clientPort);  // the same connection: never closed after five calls
}

struct Exited {
  int status = -1;  // -1 when still running after the wait (it is then killed)
  std::string err;
};

// Runs the built tondrel-editor-sim with arguments; waits at most `seconds` for it to exit.
class SimProcess {
 public:
  SimProcess(std::vector<std::string> arguments, std::string errors) : errors_(std::move(errors)) {
    arguments.insert(arguments.begin(), TONDREL_SIM_BINARY);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, errors_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn(&pid_, TONDREL_SIM_BINARY, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~SimProcess() { wait(0); }
  Exited wait(int seconds) {
    Exited out;
    for (int tick = 0; pid_ > 0 && tick <= seconds * 100; ++tick) {
      if (int status; waitpid(pid_, &status, WNOHANG) == pid_) {
        out.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        pid_ = 0;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
    if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0), pid_ = 0;
    std::ifstream in(errors_);
    out.err.assign(std::istreambuf_iterator<char>(in), {});
    return out;
  }

 private:
  pid_t pid_ = 0;
  std::string errors_;
};

int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  int port = ports(fd).first;
  close(fd);
  return port;
}

// The built simulator: --open and --seed give a replayable start, and a second one on a busy
// port refuses to start instead of sharing the port.
TEST(Http, TheSimulatorStartsFromAProjectWithSeededIdsAndNeverSharesItsPort) {
  Scratch scratch;
  std::string project = scratch.file("song.tondrel");
  std::ofstream(project) << R"({"tracks":[{"name":"Keys","kind":"midi"}]})";
  seedIds(7);
  Session expected(0);
  expected.load(normalizedDocument(json::parse(R"({"tracks":[{"name":"Keys","kind":"midi"}]})")), project);
  json expectedIds = edit(expected, {{{"op", "marker.add"}, {"time", 1}}})["created"];

  int port = freePort();
  SimProcess first({"--port", std::to_string(port), "--seed", "7", "--open", project}, scratch.file("first.err"));
  httplib::Client client("127.0.0.1", port);
  std::string state;
  for (int attempt = 0; attempt < 500 && state.empty(); ++attempt) {  // up to 5 s to start listening
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (auto answer = client.Get("/v1/state")) state = answer->body;
  }
  ASSERT_FALSE(state.empty()) << first.wait(0).err;
  EXPECT_EQ(json::parse(state)["file"], project);
  json document = json::parse(client.Get("/v1/document")->body);
  EXPECT_EQ(document["tracks"][0]["id"], expected.document()["tracks"][0]["id"]);
  auto marker = client.Post("/v1/edit", R"({"ops":[{"op":"marker.add","time":1}]})", "application/json");
  ASSERT_TRUE(marker);
  EXPECT_EQ(json::parse(marker->body)["created"], expectedIds);

  Exited second = SimProcess({"--port", std::to_string(port)}, scratch.file("second.err")).wait(10);
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, "tondrel-editor-sim: port " + std::to_string(port) +
                            " is already in use (another simulator or the editor?)\n");
  Exited missing = SimProcess({"--port", std::to_string(port), "--open", scratch.file("none.tondrel")},
                              scratch.file("missing.err")).wait(10);
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cannot open " + scratch.file("none.tondrel")), std::string::npos) << missing.err;
}

TEST(Http, BadRequestsGetA4xxWithAJsonErrorAndTheServerGoesOn) {
  RunningSim sim;
  auto client = sim.client();
  struct Case {
    const char* method;
    const char* path;
    const char* body;
    int status;
    const char* error;  // a piece of the message
  };
  const Case cases[] = {
      {"POST", "/v1/edit", "not json", 400, "not valid JSON"},
      {"POST", "/v1/edit", "[1,2]", 400, "must be a JSON object"},
      {"POST", "/v1/edit", R"({"ops":{}})", 400, "ops must be an array"},
      {"POST", "/v1/edit", R"({"ops":[{"op":"clip.gain","clip":"X","db":"loud"}]})", 400,
       R"(field \"db\" must be a number)"},
      {"POST", "/v1/edit", R"({"ops":[{"op":"track.add","name":"\u0000\ud800"}]})", 400, "not valid JSON"},
      {"POST", "/v1/edit", R"({"ops":[{"op":"marker.add","time":1e308}]})", 400,
       "time must lie between 0 and 86400"},
      {"PUT", "/v1/document", R"({"tracks":[{"clips":[{"offset":"x"}]}]})", 400,
       "document.tracks[0].clips[0].offset must be a number"},
      {"PUT", "/v1/document", R"({"tracks":{}})", 400, "document.tracks must be an array"},
      {"PUT", "/v1/document?save=1", R"({})", 400, "needs a project file"},
      {"POST", "/v1/open", R"({"path":"relative.tondrel"})", 400, "absolute path"},
      {"POST", "/v1/open", R"({"path":"/nonexistent.wav"})", 400, "no audio file at /nonexistent.wav"},
      {"POST", "/v1/open", R"({"path":"/etc/hostname"})", 400, "cannot read /etc/hostname as audio"},
      {"POST", "/v1/import", R"({"path":5})", 400, "path must be a non-empty string"},
      {"POST", "/v1/import", R"({"path":"/no/a.wav"})", 400, "cannot import a.wav: no audio file at /no/a.wav"},
      {"POST", "/v1/import", R"({"path":"/no/a.wav","at":"soon"})", 400, "at must be a number of seconds"},
      {"POST", "/v1/import", R"({"path":"/no/a.wav","track":-1})", 400, "track must be a 0-based track index"},
      {"POST", "/v1/export", R"({"path":"/tmp/x.wav"})", 400, "the project is empty"},
      {"POST", "/v1/transport", R"({"action":"fly"})", 400, "unknown action 'fly'"},
      {"POST", "/v1/transport", R"({"action":"seek"})", 400, "seek needs time"},
      {"POST", "/v1/transport", R"({"action":"loop","range":[2,1]})", 400, "range must end after it starts"},
      {"POST", "/v1/select", R"({"clips":["nope"]})", 400, "no clip with id"},
      {"POST", "/v1/select", R"({"track":4})", 400, "track must be a track index"},
      {"POST", "/v1/undo", "", 400, "nothing to undo"},
      {"POST", "/v1/redo", "", 400, "nothing to redo"},
      {"POST", "/v1/save", "{}", 400, "no file yet"},
      {"GET", "/v1/waveform", "", 400, "path is required"},
      {"GET", "/v1/waveform?path=/x.wav&bins=lots", "", 400, "bins must be a number"},
      {"GET", "/v1/silences?path=/x.wav&thresholdDB=1e999", "", 400, "thresholdDB must be a number"},
      {"GET", "/v1/nothing", "", 404, "no such endpoint: GET /v1/nothing"},
      {"DELETE", "/v1/document", "", 404, "no such endpoint"},
  };
  for (const Case& c : cases) {
    httplib::Request request;
    request.method = c.method;
    request.path = c.path;
    request.body = c.body;
    if (std::string(c.method) != "GET") request.set_header("Content-Type", "application/json");
    auto result = client.send(request);
    ASSERT_TRUE(result) << c.method << " " << c.path << ": no answer";
    EXPECT_EQ(result->status, c.status) << c.method << " " << c.path << " " << c.body;
    EXPECT_NE(result->body.find(c.error), std::string::npos)
        << c.path << " " << c.body << "\n  got: " << result->body;
    EXPECT_TRUE(json::accept(result->body)) << result->body;
  }
  // Deep enough to overflow the stack of any recursive copy, if it were parsed.
  std::string deep = R"({"clips":)" + std::string(1000000, '[') + std::string(1000000, ']') + "}";
  auto nested = client.Post("/v1/select", deep, "application/json");
  ASSERT_TRUE(nested);
  EXPECT_EQ(nested->status, 400);
  EXPECT_NE(nested->body.find("nested more than 64 levels"), std::string::npos);
  auto state = client.Get("/v1/state");
  ASSERT_TRUE(state);
  EXPECT_EQ(json::parse(state->body)["changeCount"], 0);  // nothing above changed anything
}

TEST(Http, StateFollowsTransportSelectionAndHistory) {
  Scratch scratch;
  RunningSim sim;
  auto client = sim.client();
  auto post = [&](const char* path, const json& body) {
    auto result = client.Post(path, body.dump(), "application/json");
    EXPECT_TRUE(result && result->status == 200) << path << " " << (result ? result->body : "no answer");
    return result ? json::parse(result->body) : json();
  };
  auto state = [&] { return json::parse(client.Get("/v1/state")->body); };
  writeTestTone(scratch.file("tone.wav"));
  std::string clip = post("/v1/import", {{"path", scratch.file("tone.wav")}, {"at", 1}})["clip"];
  post("/v1/select", {{"clips", {clip}}, {"track", 0}, {"range", {1, 2}}});
  post("/v1/transport", {{"action", "loop"}, {"range", {0, 4}}});
  post("/v1/transport", {{"action", "seek"}, {"time", 1.25}});
  json now = state();
  for (const char* key : {"file", "dirty", "changeCount", "playing", "time", "duration", "loopRange",
                          "selectionRange", "selectedClips", "selectedTrack", "peakLeft", "peakRight",
                          "oscInPort", "apiPort", "undoLabel", "redoLabel", "version"})
    EXPECT_TRUE(now.contains(key)) << key;
  EXPECT_EQ(now["selectedClips"], json::array({clip}));
  EXPECT_EQ(now["selectedTrack"], 0);
  EXPECT_EQ(now["selectionRange"], json::array({1.0, 2.0}));
  EXPECT_EQ(now["loopRange"], json::array({0.0, 4.0}));
  EXPECT_EQ(now["time"], 1.25);
  EXPECT_EQ(now["peakLeft"], 0.0);
  EXPECT_EQ(now["duration"], 5.0);
  EXPECT_EQ(now["playing"], false);
  EXPECT_EQ(now["undoLabel"], "Import tone.wav");
  EXPECT_EQ(now["apiPort"], 0);
  post("/v1/transport", {{"action", "play"}});
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  now = state();
  EXPECT_EQ(now["playing"], true);
  EXPECT_GT(now["time"].get<double>(), 1.25);
  EXPECT_NEAR(now["peakLeft"].get<double>(), 0.5, 0.01);  // the tone under the playhead
  EXPECT_NEAR(now["peakRight"].get<double>(), 0.5, 0.01);
  post("/v1/transport", {{"action", "stop"}});
  EXPECT_EQ(state()["time"], 0.0);

  std::string project = scratch.file("song.tondrel");
  post("/v1/save", {{"path", project}});
  EXPECT_EQ(state()["dirty"], false);
  EXPECT_EQ(state()["file"], project);
  post("/v1/edit", {{"ops", {{{"op", "master.gain"}, {"db", -2}}}}});
  EXPECT_EQ(state()["dirty"], true);
  post("/v1/open", {{"path", project}});
  json document = json::parse(client.Get("/v1/document")->body);
  EXPECT_EQ(document["masterGainDB"], 0.0);  // as saved, before the edit
  EXPECT_EQ(document["tracks"][0]["clips"][0]["id"], clip);
  EXPECT_EQ(state()["undoLabel"], nullptr);
}

// tondrel-mcp on real pipes against the simulator: a short session as an agent runs it.
TEST(Http, TondrelMcpDrivesTheSimulatorThroughASession) {
  Scratch scratch;
  writeTestTone(scratch.file("tone.wav"));
  RunningSim sim;
  tondrel::test::ServerProcess server({"TONDREL_API_PORT=" + std::to_string(sim.port())});
  int id = 0;
  auto call = [&](const char* tool, const json& arguments) {
    json request = {{"jsonrpc", "2.0"},
                    {"id", ++id},
                    {"method", "tools/call"},
                    {"params", {{"name", tool}, {"arguments", arguments}}}};
    server.send(request.dump() + "\n");
    json answer = json::parse(server.readLine());
    EXPECT_EQ(answer["id"], id);
    return answer["result"];
  };
  auto text = [](const json& result) { return json::parse(result["content"][0]["text"].get<std::string>()); };

  json imported = text(call("tondrel_import", {{"path", scratch.file("tone.wav")}}));
  std::string clip = imported["clip"];
  json edited = call("tondrel_edit", {{"label", "Tidy"},
                                      {"ops",
                                       {{{"op", "clip.split"}, {"clip", clip}, {"at", 2}},
                                        {{"op", "clip.fades"}, {"clip", clip}, {"fadeIn", 0.1}},
                                        {{"op", "marker.add"}, {"name", "Gap"}, {"time", 1.5}}}}});
  EXPECT_EQ(edited["isError"], false);
  EXPECT_EQ(text(call("tondrel_state", json::object()))["undoLabel"], "Tidy");
  json bad = call("tondrel_edit", {{"ops", {{{"op", "clip.gain"}, {"clip", clip}}}}});
  EXPECT_EQ(bad["isError"], true);
  EXPECT_NE(bad["content"][0]["text"].get<std::string>().find(R"(ops[0] (clip.gain): missing field \"db\")"),
            std::string::npos);
  json misplaced = call("tondrel_import", {{"path", scratch.file("tone.wav")}, {"track", 7}});
  EXPECT_EQ(misplaced["isError"], true);
  EXPECT_NE(misplaced["content"][0]["text"].get<std::string>().find(
                "cannot import tone.wav: no track 7: the project has 1 tracks"),
            std::string::npos)
      << misplaced;
  json gaps = text(call("tondrel_silences", {{"path", scratch.file("tone.wav")}, {"minDuration", 0.2}}));
  EXPECT_EQ(gaps["silences"].size(), 2u);
  json exported =
      text(call("tondrel_export", {{"path", scratch.file("out.flac")}, {"normalization", "peak"}}));
  EXPECT_EQ(exported["format"], "flac");
  EXPECT_TRUE(std::filesystem::exists(scratch.file("out.flac")));
  json picture = call("tondrel_snapshot", json::object());
  EXPECT_EQ(picture["content"][0]["type"], "image");
  EXPECT_EQ(picture["content"][0]["mimeType"], "image/png");
  EXPECT_TRUE(
      picture["content"][0]["data"].get<std::string>().starts_with("iVBORw0KGgo"));  // the PNG signature
  EXPECT_EQ(text(call("tondrel_undo", json::object()))["undone"], "Tidy");
  EXPECT_EQ(text(call("tondrel_document", json::object()))["tracks"][0]["clips"].size(), 1u);
  EXPECT_NE(
      text(call("tondrel_help", json::object()))["editOperations"].get<std::string>().find("master.gain"),
      std::string::npos);
  server.closeInput();
  EXPECT_EQ(server.wait(5), 0);
}

}  // namespace
}  // namespace tondrel::sim::test
