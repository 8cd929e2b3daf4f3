// The built tondrel-mcp against editors built on real HTTP servers, each with its own way of
// serving connections (tests/editors/, and the simulator): an agent's session gets every answer
// exactly as the editor wrote it, each edit reaches the editor once, one tondrel-mcp holds at most
// one connection at a time, and no call waits out the timeout.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "json_writer.hpp"
#include "process.hpp"
#include "stand_in_editor.hpp"

namespace tondrel::test {
namespace {

using json = nlohmann::json;
using namespace std::chrono_literals;

const std::string kEditors = TONDREL_TESTS_DIR "/editors/";

struct Row {
  const char* editor;
  const char* program;  // looked up on PATH, or the simulator's path
  const char* script;   // the small editor's script in tests/editors/ and its mode; "" for the simulator
  bool idleNeighbour = false;  // another tondrel-mcp holds a connection to it, idle after one call
};

// Each kind of editor once, and the one-connection editor again beside an idle tondrel-mcp.
const Row kRows[] = {
    {"serves one connection at a time (Python's HTTPServer, HTTP/1.1)", "python3", "python_editor.py one"},
    {"serves each connection on a thread (Python's ThreadingHTTPServer)", "python3",
     "python_editor.py threads"},
    {"answers HTTP/1.0 and closes after each answer", "python3", "python_editor.py close"},
#ifdef TONDREL_SIM_BINARY
    {"is the simulator (cpp-httplib)", TONDREL_SIM_BINARY, ""},
#endif
    {"serves one connection at a time, and another tondrel-mcp holds one idle", "python3",
     "python_editor.py one", true},
};

// The program itself: a python3 on PATH may be a shim that looks for the interpreter at every
// start (pyenv's takes a second and more); "" when it is not installed.
std::string interpreter(const std::string& program) {
  if (program.starts_with("/")) return ::access(program.c_str(), X_OK) == 0 ? program : "";
  ServerProcess ask(Launch{.environment = {},
                           .command = {"/usr/bin/env", program, "-c", "import sys; print(sys.executable)"}});
  return ask.readLine();
}

// The body of a GET sent to the editor directly, not through the bridge; nothing unless it is a 200.
std::optional<std::string> fetch(int port, const std::string& path) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  timeval limit{10, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    writeText(fd, "GET " + path + " HTTP/1.0\r\n\r\n");
    char chunk[1 << 16];
    for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;) answer.append(chunk, n);
  }
  ::close(fd);
  auto head = answer.find("\r\n\r\n");
  if (answer.find(" 200 ") != 8 || head == std::string::npos) return std::nullopt;
  return answer.substr(head + 4);
}

// What the small editors answer, by method and path: the bodies in answers.txt, and the snapshot.
std::map<std::string, std::string> smallEditorAnswers() {
  std::ifstream png(kEditors + "snapshot.png", std::ios::binary), lines(kEditors + "answers.txt");
  std::map<std::string, std::string> bodies = {
      {"GET /v1/snapshot.png", {std::istreambuf_iterator<char>(png), {}}}};
  for (std::string line; std::getline(lines, line);)
    if (auto end = line.find(' ', line.find(' ') + 1); line[0] != '#' && end != std::string::npos)
      bodies[line.substr(0, end)] = line.substr(end + 1);
  return bodies;
}

std::string base64(std::string_view bytes) {
  Buffer out;
  JsonWriter writer(out);
  std::string carry;
  writer.beginString().base64Piece(bytes, carry);
  writer.endBase64String(carry);
  return std::string(out.view().substr(1, out.size() - 2));
}

// The text a tools/call answer carries, or for an image its base64 data; nothing for anything else.
std::optional<std::string> carried(const std::string& line) {
  json answer = json::parse(line, nullptr, false);
  if (!answer.is_object()) return std::nullopt;
  json item = answer["result"]["content"][0];  // not const: what is missing reads as null
  if (item["type"] == "text" && answer["result"]["isError"] == false) return item["text"].get<std::string>();
  if (item["type"] == "image" && item["mimeType"] == "image/png") return item["data"].get<std::string>();
  return std::nullopt;
}

// The most TCP connections a process held open to a port at once, looked at every millisecond
// from outside; 0 where the system does not tell.
class ConnectionWatch {
 public:
  ConnectionWatch(int pid, int port)
      : thread_([this, pid, port] {
          for (; !stop_; std::this_thread::sleep_for(1ms))
            most_ = std::max(most_.load(), connections(pid, port));
        }) {}
  ~ConnectionWatch() {
    stop_ = true;
    thread_.join();
  }
  int most() const { return most_; }

 private:
  // Its sockets (by inode) that /proc/net/tcp shows connecting or connected to the port.
  static int connections([[maybe_unused]] int pid, [[maybe_unused]] int port) {
    int open = 0;
#ifdef __linux__
    std::string process = "/proc/" + std::to_string(pid);
    std::set<std::string> inodes;
    std::error_code error;
    for (const auto& fd : std::filesystem::directory_iterator(process + "/fd", error))
      if (std::string link = std::filesystem::read_symlink(fd.path(), error); link.starts_with("socket:["))
        inodes.insert(link.substr(8, link.size() - 9));
    std::ifstream table(process + "/net/tcp");
    std::string line, slot, local, remote, state, skip, inode;
    for (std::getline(table, line); table >> slot >> local >> remote >> state;) {
      for (int i = 0; i < 5; ++i) table >> skip;
      table >> inode;
      std::getline(table, line);
      open += std::stoi(remote.substr(remote.find(':') + 1), nullptr, 16) == port &&
              (state == "01" || state == "02") && inodes.count(inode);
    }
#endif
    return open;
  }

  std::atomic<bool> stop_ = false;
  std::atomic<int> most_ = 0;
  std::thread thread_;
};

// One session through a fresh tondrel-mcp against an editor that runs already; the first call
// that waits out the timeout ends it. The answers the editor gave must be its own bodies.
void runSession(const Row& row, ServerProcess& editor, int port) {
  bool simulator = !*row.script;
  const std::string saved =
      std::filesystem::temp_directory_path() / ("tondrel-editors-" + std::to_string(port));
  const std::string document = R"({"markers":[{"name":")" + std::string(1 << 20, '.') + R"(","time":0}]})";
  const std::tuple<const char*, std::string, std::string> calls[] = {
      {"tondrel_state", "{}", "GET /v1/state"},
      {"tondrel_edit", R"({"label":"Marker","ops":[{"op":"marker.add","name":"Verse","time":1.5}]})",
       "POST /v1/edit"},
      {"tondrel_replace_document", R"({"document":)" + document + "}", "PUT /v1/document"},
      {"tondrel_snapshot", "{}", "GET /v1/snapshot.png"},
      {"tondrel_undo", "{}", "POST /v1/undo"},
      {"tondrel_save", R"({"path":")" + saved + R"("})", "POST /v1/save"},
  };
  const auto bodies = smallEditorAnswers();
  std::optional<ServerProcess> neighbour;
  if (row.idleNeighbour) {
    neighbour.emplace(std::vector<std::string>{editorAt(port)});
    neighbour->send(toolCall("tondrel_state"));
    EXPECT_EQ(carried(neighbour->readLine()), bodies.at("GET /v1/state"));
  }
  ServerProcess bridge({editorAt(port)});
  {
    ConnectionWatch watch(bridge.pid(), port);
    int id = 0;
    for (const auto& [tool, arguments, request] : calls) {
      SCOPED_TRACE(tool);
      bridge.send(toolCall(tool, ++id, arguments));
      std::string line = bridge.readLine();
      std::optional<std::string> answer = carried(line);
      ASSERT_TRUE(answer) << line.substr(0, 400);  // "not reachable" included: the timeout was waited out
      bool image = request == "GET /v1/snapshot.png";
      std::optional<std::string> body = bodies.at(request);
      if (simulator) body = request.starts_with("GET") ? fetch(port, request.substr(4)) : std::nullopt;
      if (body) {
        EXPECT_EQ(*answer, image ? base64(*body) : *body);
      }
    }
    EXPECT_LE(watch.most(), 1) << "connections open at once from one tondrel-mcp";
    // A connection closed after each answer may come and go between two looks; a kept one may not.
    if (!std::string_view(row.script).ends_with(" close")) {
      EXPECT_EQ(watch.most(), 1) << "the watch saw none";
    }
  }
  bridge.closeInput();
  EXPECT_EQ(bridge.wait(10), 0);
  EXPECT_EQ(bridge.errors(), "");
  std::filesystem::remove(saved);

  if (simulator) {  // each edit once: three changes, and the one marker of the edit
    json state = json::parse(fetch(port, "/v1/state").value_or(""), nullptr, false);
    EXPECT_EQ(state.value("changeCount", -1), 3) << state;
    EXPECT_EQ(state.value("file", ""), saved) << state;
    return;
  }
  editor.closeInput();
  json summary = json::parse(editor.readLine(), nullptr, false);
  ASSERT_TRUE(summary.is_object()) << "the editor's summary";
  for (const auto& [tool, arguments, request] : calls) {
    int times = summary["requests"].value(request, 0);
    if (request.starts_with("GET"))
      EXPECT_GE(times, 1) << request;  // a GET may go out again on a fresh connection
    else
      EXPECT_EQ(times, 1) << request << ": an edit reaches the editor once";
  }
  EXPECT_EQ(summary["bodyBytes"]["PUT /v1/document"], document.size());
}

// Every kind of editor at once, so that the slowest session sets the test's time.
TEST(RealEditors, EachAnswersEveryCallOfASessionAndSeesEachEditOnceOnOneConnection) {
  const char* ci = std::getenv("CI");
  bool underCI = ci && std::string_view(ci) == "true";
  std::set<std::string> missing;
  std::map<std::string, std::string> programs;
  for (const Row& row : kRows) programs.emplace(row.program, interpreter(row.program));
  std::vector<std::future<void>> runs;
  for (const Row& row : kRows) {
    std::string program = programs[row.program];
    if (program.empty()) {
      if (underCI)
        ADD_FAILURE() << row.program << " is not installed: an editor that " << row.editor << " cannot run";
      missing.insert(row.program);
      continue;
    }
    runs.push_back(std::async(std::launch::async, [&, &row = row, program] {
      SCOPED_TRACE(std::string("an editor that ") + row.editor);
      std::vector<std::string> command = {program};
      std::istringstream words(row.script);
      for (std::string word; words >> word;) command.push_back(command.size() == 1 ? kEditors + word : word);
      bool simulator = !*row.script;
      int port = simulator ? closedPort() : 0;  // the small editors say which port they took
      if (simulator) command.insert(command.end(), {"--port", std::to_string(port)});
      ServerProcess editor(Launch{.environment = {}, .command = command});
      if (!simulator) port = std::atoi(editor.readLine().c_str());
      for (int tick = 0; simulator && !fetch(port, "/v1/state") && tick < 1000; ++tick)  // up to 10 s
        std::this_thread::sleep_for(10ms);
      ASSERT_TRUE(port > 0 && fetch(port, "/v1/state")) << "the editor did not start";
      runSession(row, editor, port);
      if (simulator) ::kill(editor.pid(), SIGKILL);  // it does not end with its input
    }));
  }
  for (auto& run : runs) run.get();
  if (!missing.empty() && !underCI)
    GTEST_SKIP() << "not installed, so their editors did not run: " << *missing.begin();
}

}  // namespace
}  // namespace tondrel::test
