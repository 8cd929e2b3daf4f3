// The simulator over HTTP, alone and as the editor behind the built tondrel-mcp.
#include "http.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <fstream>
#include <optional>
#include <thread>

#include "process.hpp"
#include "running_sim.hpp"
#include "sim_support.hpp"

extern char** environ;  // macOS's unistd.h does not declare it

namespace tondrel::sim::test {
namespace {

// The local port of a socket, and of its peer; 0 where it has none.
std::pair<int, int> ports(int fd) {
  sockaddr_in local{}, peer{};
  socklen_t size = sizeof local;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0 || local.sin_family != AF_INET)
    return {0, 0};
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

// The built tondrel-editor-sim with its standard error in a file; killed when destroyed.
struct SimProcess {
  pid_t pid = 0;
  SimProcess(std::vector<std::string> arguments, const std::string& errors) {
    arguments.insert(arguments.begin(), TONDREL_SIM_BINARY);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn(&pid, TONDREL_SIM_BINARY, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~SimProcess() {
    if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
  }
  int wait(int seconds) {  // the exit status once it has exited within seconds, else -1
    for (int tick = 0; tick < seconds * 100; ++tick) {
      if (int status; waitpid(pid, &status, WNOHANG) == pid) return pid = 0, WEXITSTATUS(status);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }
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

// The built simulator through a session: --open and --seed give a replayable start, the state
// follows transport, selection and history, and a second simulator never shares the port.
TEST(Http, TheBuiltSimulatorServesASessionAndNeverSharesItsPort) {
  Scratch scratch;
  std::string tone = scratch.file("tone.wav"), project = scratch.file("song.tondrel");
  writeTestTone(tone);
  json opened = {
      {"tracks",
       {{{"name", "Tone"}, {"clips", {{{"id", "C"}, {"path", tone}, {"offset", 1}, {"duration", 4}}}}}}}};
  std::ofstream(project) << opened;
  seedIds(7);  // the ids the built simulator must give: the opened track's, then a new marker's
  json track = normalizedDocument(opened)["tracks"][0]["id"], marker = {newUuid()};

  int port = freePort();
  SimProcess first({"--port", std::to_string(port), "--seed", "7", "--open", project},
                   scratch.file("first.err"));
  httplib::Client client("127.0.0.1", port);
  auto state = [&] {
    auto answer = client.Get("/v1/state");
    return answer ? json::parse(answer->body) : json();
  };
  for (int attempt = 0; attempt < 500 && state().is_null(); ++attempt)  // up to 5 s to start listening
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(state()["file"], project);
  auto post = [&](const char* path, const json& body) {
    auto result = client.Post(path, body.dump(), "application/json");
    EXPECT_TRUE(result && result->status == 200) << path << " " << (result ? result->body : "no answer");
    return result ? json::parse(result->body) : json();
  };
  EXPECT_EQ(json::parse(client.Get("/v1/document")->body)["tracks"][0]["id"], track);
  EXPECT_EQ(post("/v1/edit", {{"ops", {{{"op", "marker.add"}, {"time", 1}}}}})["created"], marker);

  post("/v1/select", {{"clips", {"C"}}, {"track", 0}, {"range", {1, 2}}});
  post("/v1/transport", {{"action", "loop"}, {"range", {0, 4}}});
  post("/v1/transport", {{"action", "seek"}, {"time", 1.25}});
  json now = state();
  EXPECT_EQ(now.size(), 17u);
  json expected =
      json::parse(R"({"selectedClips":["C"],"selectedTrack":0,"selectionRange":[1,2],"loopRange":[0,4],
      "time":1.25,"peakLeft":0,"duration":5,"playing":false,"undoLabel":"marker.add"})");
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(now[key], value) << key;
  EXPECT_EQ(now["apiPort"], port);
  post("/v1/transport", {{"action", "play"}});
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  now = state();
  EXPECT_EQ(now["playing"], true);
  EXPECT_GT(now["time"].get<double>(), 1.25);
  EXPECT_NEAR(now["peakLeft"].get<double>(), 0.5, 0.01);  // the tone under the playhead
  post("/v1/save", {{"path", scratch.file("copy.tondrel")}});
  EXPECT_EQ(state()["dirty"], false);
  post("/v1/edit", {{"ops", {{{"op", "master.gain"}, {"db", -2}}}}});
  EXPECT_EQ(state()["dirty"], true);
  post("/v1/open", {{"path", scratch.file("copy.tondrel")}});
  EXPECT_EQ(json::parse(client.Get("/v1/document")->body)["masterGainDB"], 0.0);  // as saved, before the edit
  EXPECT_EQ(state()["undoLabel"], nullptr);

  EXPECT_EQ(SimProcess({"--port", std::to_string(port)}, scratch.file("second.err")).wait(10), 1);
  std::ifstream errors(scratch.file("second.err"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(errors), {}),
            "tondrel-editor-sim: port " + std::to_string(port) +
                " is already in use (another simulator or the editor?)\n");
}

TEST(Http, BadRequestsGetA4xxWithAJsonErrorAndTheServerGoesOn) {
  RunningSim sim;
  auto client = sim.client();
  // Method, path, body, the status, and a piece of the error.
  const std::tuple<const char*, const char*, const char*, int, const char*> cases[] = {
      {"POST", "/v1/edit", "not json", 400, "not valid JSON"},
      {"POST", "/v1/edit", R"({"ops":[{"op":"clip.gain","clip":"X","db":"loud"}]})", 400,
       R"(field \"db\" must be a number)"},
      {"POST", "/v1/edit", R"({"ops":[{"op":"track.add","name":"\u0000\ud800"}]})", 400, "not valid JSON"},
      {"PUT", "/v1/document", R"({"tracks":[{"clips":[{"offset":"x"}]}]})", 400,
       "document.tracks[0].clips[0].offset must be a number"},
      {"PUT", "/v1/document?save=1", R"({})", 400, "needs a project file"},
      {"POST", "/v1/open", R"({"path":"relative.tondrel"})", 400, "absolute path"},
      {"POST", "/v1/open", R"({"path":"/etc/hostname"})", 400, "cannot read /etc/hostname as audio"},
      {"POST", "/v1/import", R"({"path":5})", 400, "path must be a non-empty string"},
      {"POST", "/v1/import", R"({"path":"/a.wav"})", 400, "cannot import a.wav: no audio file at /a.wav"},
      {"POST", "/v1/import", R"({"path":"/a.wav","at":"soon"})", 400, "at must be a number of seconds"},
      {"POST", "/v1/import", R"({"path":"/a.wav","track":-1})", 400, "track must be a 0-based track"},
      {"POST", "/v1/transport", R"({"action":"fly"})", 400, "unknown action 'fly'"},
      {"POST", "/v1/select", R"({"clips":["nope"]})", 400, "no clip with id"},
      {"POST", "/v1/select", R"({"track":4})", 400, "track must be a track index"},
      {"POST", "/v1/undo", "", 400, "nothing to undo"},
      {"POST", "/v1/save", "{}", 400, "no file yet"},
      {"GET", "/v1/waveform?path=/x.wav&bins=lots", "", 400, "bins must be a number"},
      {"GET", "/v1/silences?path=/x.wav&thresholdDB=1e999", "", 400, "thresholdDB must be a number"},
      {"GET", "/v1/nothing", "", 404, "no such endpoint: GET /v1/nothing"},
  };
  for (const auto& [method, path, body, status, error] : cases) {
    httplib::Request request;
    request.method = method, request.path = path, request.body = body;
    request.set_header("Content-Type", "application/json");
    auto result = client.send(request);
    ASSERT_TRUE(result) << method << " " << path << ": no answer";
    EXPECT_EQ(result->status, status) << method << " " << path << " " << body;
    EXPECT_NE(result->body.find(error), std::string::npos)
        << path << " " << body << "\n  got: " << result->body;
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

}  // namespace
}  // namespace tondrel::sim::test
