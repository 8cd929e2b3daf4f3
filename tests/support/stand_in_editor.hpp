// Stand-ins for the editor on loopback, on plain sockets: one that speaks raw bytes
// for faults no real server commits, and one that speaks HTTP and records requests.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tondrel::test {

struct RecordedRequest {
  std::string method;
  std::string target;                          // path and query, as sent
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
};

struct CannedAnswer {
  int status = 200;
  std::string body = R"({"ok":true})";
  std::string contentType = "application/json";
};

// An editor that speaks raw bytes, for faults no real server commits. Every
// connection is served on a thread of its own; each request read on any of them
// is numbered from 1 and handed to the script, which answers it on fd (or not)
// and says whether to go on reading that connection.
class ScriptedServer {
 public:
  using Script = std::function<bool(int fd, int number, const std::string& request)>;
  explicit ScriptedServer(Script script);
  ~ScriptedServer();

  int port() const { return port_; }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // The requests read so far that start with this text ("GET", say; "" for all).
  int requests(std::string_view method) const;

 private:
  void serve(int connection);

  Script script_;
  int listener_ = -1;
  int port_ = 0;
  int stop_[2] = {-1, -1};
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::vector<int> open_;
  std::vector<std::thread> threads_;
  std::thread thread_;
};

// An editor that speaks HTTP, records every request and gives each the same
// canned answer.
class StandInEditor {
 public:
  StandInEditor();

  int port() const { return server_.port(); }
  std::string base() const { return server_.base(); }
  void answer(CannedAnswer answer);
  std::vector<RecordedRequest> requests() const;

 private:
  mutable std::mutex mutex_;
  std::vector<RecordedRequest> requests_;
  CannedAnswer answer_;
  ScriptedServer server_;  // last: it stops first, while what it uses still stands
};

// Reads one HTTP request (head and Content-Length body), or what came before the
// peer closed; "" when it closed between requests.
std::string readRequest(int fd);
void writeText(int fd, const std::string& text);

// A port on which nothing listens.
int closedPort();

}  // namespace tondrel::test
