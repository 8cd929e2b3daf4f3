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
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "process.hpp"
#include "stand_in_editor.hpp"

namespace tondrel::test {
namespace {

using json = nlohmann::json;
using namespace std::chrono_literals;

const std::string kEditors = TONDREL_TESTS_DIR "/editors/";
const std::string kUnreachable = "Tondrel is not reachable";

#ifdef TONDREL_SIM_BINARY
constexpr std::size_t kKinds = 5;
#else
constexpr std::size_t kKinds = 4;  // the simulator is not built
#endif

struct Row {
  const char* editor;
  const char* program;    // looked up on PATH, or the simulator's path
  const char* arguments;  // the small editor's script, in tests/editors/, and its mode; "" for the simulator
  std::chrono::seconds pause{0};  // before the snapshot: longer than the editor keeps an idle connection
  bool idleNeighbour = false;     // another tondrel-mcp holds a connection to it, idle after one call
  bool simulator() const { return !*arguments; }
};

// Each kind of editor once, and the one-connection editor again beside an idle tondrel-mcp.
const Row kRows[] = {
    {"serves one connection at a time (Python's HTTPServer, HTTP/1.1)", "python3", "python_editor.py one"},
    {"serves each connection on a thread (Python's ThreadingHTTPServer, HTTP/1.1)", "python3",
     "python_editor.py threads"},
    {"answers HTTP/1.0 and closes after each answer (Python's HTTPServer)", "python3",
     "python_editor.py close"},
    {"closes a connection idle for 5 s (Node's http module)", "node", "node_editor.mjs", 6s},
#ifdef TONDREL_SIM_BINARY
    {"is the simulator (cpp-httplib)", TONDREL_SIM_BINARY, ""},
#endif
    {"serves one connection at a time, and another tondrel-mcp holds one idle", "python3",
     "python_editor.py one", 0s, true},
};

std::string onPath(const std::string& program) {
  if (program.starts_with("/")) return ::access(program.c_str(), X_OK) == 0 ? program : "";
  std::istringstream directories(std::getenv("PATH") ? std::getenv("PATH") : "");
  for (std::string directory; std::getline(directories, directory, ':');)
    if (std::string path = directory + "/" + program; ::access(path.c_str(), X_OK) == 0) return path;
  return "";
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
    writeText(fd, "GET " + path + " HTTP/1.0\r\nConnection: close\r\n\r\n");
    char chunk[1 << 16];
    for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;) answer.append(chunk, n);
  }
  ::close(fd);
  auto head = answer.find("\r\n\r\n");
  if (answer.find(" 200 ") != 8 || head == std::string::npos) return std::nullopt;
  return answer.substr(head + 4);
}

std::string base64(std::string_view bytes) {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t n = 0;
    for (std::size_t j = 0; j < 3; ++j) n = n << 8 | (i + j < bytes.size() ? std::uint8_t(bytes[i + j]) : 0);
    for (std::size_t j = 0; j < 4; ++j) out += j <= bytes.size() - i ? kDigits[n >> (18 - 6 * j) & 63] : '=';
  }
  return out;
}

// What the small editors answer, by method and path: the bodies in answers.txt, and the snapshot.
const std::map<std::string, std::string>& smallEditorAnswers() {
  static const std::map<std::string, std::string> answers = [] {
    std::ifstream png(kEditors + "snapshot.png", std::ios::binary);
    std::map<std::string, std::string> bodies = {
        {"GET /v1/snapshot.png", std::string(std::istreambuf_iterator<char>(png), {})}};
    std::ifstream lines(kEditors + "answers.txt");
    for (std::string line; std::getline(lines, line);) {
      auto end = line.find(' ', line.find(' ') + 1);
      if (!line.empty() && line[0] != '#' && end != std::string::npos)
        bodies[line.substr(0, end)] = line.substr(end + 1);
    }
    return bodies;
  }();
  return answers;
}

// A project of markers in exactly 1 MiB of JSON.
const std::string& megabyteDocument() {
  static const std::string document = [] {
    constexpr std::size_t kSize = 1 << 20;
    const std::string tail = R"(","time":0}]})";
    std::string text = R"({"markers":[)";
    for (int i = 0; text.size() + 1100 < kSize; ++i)
      text += R"({"name":"Marker )" + std::to_string(i) + std::string(1000, '.') + R"(","time":)" +
              std::to_string(i) + "},";
    text += R"({"name":")";
    return text + std::string(kSize - text.size() - tail.size(), '.') + tail;
  }();
  return document;
}

struct Call {
  const char* tool;
  std::string arguments;
  std::string request;             // the editor's method and path
  json simulatorAnswer = nullptr;  // for an edit, the members the simulator's answer holds (its ids are new)
};

std::vector<Call> session(const std::string& savePath) {
  return {
      {"tondrel_state", "{}", "GET /v1/state"},
      {"tondrel_edit",
       R"({"label":"Marker","ops":[{"op":"marker.add","name":"Verse","time":1.5}]})",
       "POST /v1/edit",
       {{"ok", true}, {"label", "Marker"}, {"applied", 1}}},
      {"tondrel_replace_document",
       R"({"document":)" + megabyteDocument() + "}",
       "PUT /v1/document",
       {{"ok", true}, {"tracks", 0}, {"saved", false}}},
      {"tondrel_snapshot", "{}", "GET /v1/snapshot.png"},
      {"tondrel_undo", "{}", "POST /v1/undo", {{"ok", true}, {"undone", "Replace Document"}}},
      {"tondrel_save",
       R"({"path":")" + savePath + R"("})",
       "POST /v1/save",
       {{"ok", true}, {"file", savePath}}},
  };
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

// The most connections a tondrel-mcp held open to a port at once, looked at every millisecond
// from outside (for an editor that cannot count them itself); 0 where the system does not tell.
class ConnectionWatch {
 public:
  ConnectionWatch(int pid, int port)
      : thread_([this, pid, port] {
          while (!stop_)
            most_ = std::max(most_.load(), openConnections(pid, port)), std::this_thread::sleep_for(1ms);
        }) {}
  ~ConnectionWatch() {
    stop_ = true;
    thread_.join();
  }
  int most() const { return most_; }

 private:
  // Its TCP sockets to the port that the editor may still serve: connecting or established.
  static int openConnections([[maybe_unused]] int pid, [[maybe_unused]] int port) {
    int open = 0;
#ifdef __linux__
    std::string process = "/proc/" + std::to_string(pid);
    std::set<std::string> inodes;
    if (DIR* fds = ::opendir((process + "/fd").c_str())) {
      char target[64];
      for (dirent* fd; (fd = ::readdir(fds));) {
        ssize_t n = ::readlink((process + "/fd/" + fd->d_name).c_str(), target, sizeof target - 1);
        if (std::string_view link(target, n > 0 ? n : 0); link.starts_with("socket:["))
          inodes.emplace(link.substr(8, link.size() - 9));
      }
      ::closedir(fds);
    }
    std::ifstream table(process + "/net/tcp");
    std::string line, slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    std::getline(table, line);  // the heading
    while (table >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >>
           inode) {
      std::getline(table, line);
      bool toPort = std::stoi(remote.substr(remote.find(':') + 1), nullptr, 16) == port;
      open += toPort && (state == "01" || state == "02") && inodes.count(inode);
    }
#endif
    return open;
  }

  std::atomic<bool> stop_ = false;
  std::atomic<int> most_ = 0;
  std::thread thread_;
};

// Where the session saves the project (the simulator writes it there), removed with the object.
struct SavedProject {
  std::string path;
  ~SavedProject() {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
  }
};

// Stops an editor; answers what it wrote on its standard error.
std::string stop(ServerProcess& editor) {
  if (editor.pid() > 0) ::kill(editor.pid(), SIGKILL);
  editor.wait(5);
  return editor.errors();
}

// The answer must be the editor's own body: the small editors' is known; the simulator's, for a
// GET, is asked for again directly, and for an edit must hold the members expected.
void expectTheEditorsAnswer(const Call& call, const std::string& answer, bool simulator, int port) {
  bool image = call.tool == std::string_view("tondrel_snapshot");
  if (!simulator) {
    const std::string& body = smallEditorAnswers().at(call.request);
    EXPECT_EQ(answer, image ? base64(body) : body);
  } else if (call.simulatorAnswer.is_null()) {
    std::optional<std::string> body = fetch(port, call.request.substr(call.request.find(' ') + 1));
    ASSERT_TRUE(body) << "the simulator did not answer " << call.request;
    EXPECT_EQ(answer, image ? base64(*body) : *body);
  } else {
    json members = json::parse(answer, nullptr, false);
    for (const auto& [key, value] : call.simulatorAnswer.items())
      EXPECT_EQ(members.is_object() ? members[key] : json(), value) << key << " in " << answer;
  }
}

// One session through a fresh tondrel-mcp; the editor runs already. The first call that waits
// out the timeout ends it.
void runSession(const Row& row, ServerProcess& editor, int port) {
  SavedProject saved{std::filesystem::temp_directory_path() /
                     ("tondrel-real-editors-" + std::to_string(port) + ".tondrel")};
  const std::string& savePath = saved.path;

  std::optional<ServerProcess> neighbour;
  if (row.idleNeighbour) {
    neighbour.emplace(std::vector<std::string>{editorAt(port)});
    neighbour->send(toolCall("tondrel_state"));
    EXPECT_EQ(carried(neighbour->readLine()).value_or(""), smallEditorAnswers().at("GET /v1/state"));
  }
  ServerProcess bridge({editorAt(port)});
  std::optional<ConnectionWatch> watch;
  if (row.simulator()) watch.emplace(bridge.pid(), port);
  bridge.send(R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})"
              "\n");
  EXPECT_NE(bridge.readLine().find(R"("serverInfo")"), std::string::npos);

  int id = 0;
  bool finished = true;
  for (const Call& call : session(savePath)) {
    SCOPED_TRACE(call.tool);
    if (call.tool == std::string_view("tondrel_snapshot"))
      std::this_thread::sleep_for(row.pause);  // meanwhile the editor closes what the PUT left idle
    bridge.send(toolCall(call.tool, ++id, call.arguments));
    std::string line = bridge.readLine();
    if (line.find(kUnreachable) != std::string::npos) {
      ADD_FAILURE() << "the call waited out the timeout: " << line;
      finished = false;
      break;
    }
    std::optional<std::string> answer = carried(line);
    ASSERT_TRUE(answer) << line.substr(0, 400);
    expectTheEditorsAnswer(call, *answer, row.simulator(), port);
  }
  bridge.closeInput();
  EXPECT_EQ(bridge.wait(10), 0);
  EXPECT_EQ(bridge.errors(), "");
  if (neighbour) {
    neighbour->closeInput();
    EXPECT_EQ(neighbour->wait(10), 0);
  }

  if (finished && row.simulator()) {  // each edit once: three changes, and the one marker of the edit
    json state = json::parse(fetch(port, "/v1/state").value_or(""), nullptr, false);
    json document = json::parse(fetch(port, "/v1/document").value_or(""), nullptr, false);
    EXPECT_EQ(state.value("changeCount", -1), 3) << state;
    EXPECT_EQ(state.value("file", ""), savePath) << state;
    EXPECT_EQ(document.is_object() ? document["markers"].size() : 0u, 1u);
#ifdef __linux__
    EXPECT_EQ(watch->most(), 1) << "connections open at once from one tondrel-mcp";
#endif
  } else if (finished) {
    editor.closeInput();
    json summary = json::parse(editor.readLine(), nullptr, false);
    ASSERT_TRUE(summary.is_object()) << "the editor's summary; it wrote: " << stop(editor);
    std::map<std::string, int> requests = summary["requests"];
    for (const Call& call : session(savePath)) {
      int times = requests[call.request];
      if (call.request.starts_with("GET"))
        EXPECT_GE(times, 1) << call.request;  // a GET may go out again on a fresh connection
      else
        EXPECT_EQ(times, 1) << call.request << ": an edit reaches the editor once";
    }
    EXPECT_EQ(requests.size(), 6u) << summary;
    EXPECT_EQ(summary["bodyBytes"]["PUT /v1/document"], megabyteDocument().size());
    if (!row.idleNeighbour) {
      EXPECT_EQ(summary["mostConnections"], 1) << "connections open at once";
    }
  }
}

// Every kind of editor at once, so that the slowest session sets the test's time.
TEST(RealEditors, EachAnswersEveryCallOfASessionAndSeesEachEditOnceOnOneConnection) {
  const char* ci = std::getenv("CI");
  bool underCI = ci && std::string_view(ci) == "true";
  std::mutex lock;
  std::set<std::string> ran, missing;
  std::map<std::string, std::string> programs;  // found, by the name the table gives
  for (const Row& row : kRows) programs.emplace(row.program, onPath(row.program));
  // python3 is often a shim that looks for the interpreter at every start (pyenv's takes a second
  // and more): the editors start from the interpreter itself.
  if (std::string& python = programs["python3"]; !python.empty()) {
    ServerProcess ask(
        Launch{.environment = {}, .command = {python, "-c", "import sys; print(sys.executable)"}});
    if (std::string found = ask.readLine(); !found.empty()) python = found;
  }
  std::vector<std::future<void>> runs;
  for (const Row& row : kRows) {
    std::string program = programs[row.program];
    if (program.empty()) {
      if (underCI)
        ADD_FAILURE() << row.program << " is not installed: an editor " << row.editor << " cannot run";
      missing.insert(row.program);
      continue;
    }
    runs.push_back(std::async(std::launch::async, [&, &row = row, program] {
      SCOPED_TRACE(std::string("an editor that ") + row.editor);
      std::vector<std::string> command = {program};
      std::istringstream words(row.arguments);
      for (std::string word; words >> word;) command.push_back(command.size() == 1 ? kEditors + word : word);
      int port = row.simulator() ? closedPort() : 0;  // the small editors say which port they took
      if (port) command.insert(command.end(), {"--port", std::to_string(port)});
      ServerProcess editor(Launch{.environment = {}, .command = command});
      bool listening = false;
      if (!row.simulator()) listening = (port = std::atoi(editor.readLine().c_str())) > 0;
      for (int tick = 0; row.simulator() && !listening && tick < 1000; ++tick)  // up to 10 s to listen
        if (!(listening = fetch(port, "/v1/state").has_value())) std::this_thread::sleep_for(10ms);
      ASSERT_TRUE(listening) << "the editor did not start; it wrote: " << stop(editor);
      {
        std::lock_guard guard(lock);
        ran.insert(program + " " + row.arguments);
      }
      runSession(row, editor, port);
      if (row.simulator()) stop(editor);  // the simulator does not end with its input
    }));
  }
  for (auto& run : runs) run.get();
  if (!missing.empty() && !underCI) {
    std::string names;
    for (const std::string& name : missing) names += " " + name;
    GTEST_SKIP() << "not installed, so their editors did not run:" << names;
  }
  EXPECT_EQ(ran.size(), kKinds) << "kinds of editor that ran";
}

}  // namespace
}  // namespace tondrel::test
