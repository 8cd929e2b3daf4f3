// tondrel-editor-sim as a whole: the editor's API under /v1, with faults on demand and a
// log of every request, and the live page beside it on the same port.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "connections.hpp"
#include "faults.hpp"
#include "live.hpp"
#include "session.hpp"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace tondrel::sim {

inline constexpr const char* kHost = "127.0.0.1";  // the loopback interface only, as the editor listens

class Simulator {
 public:
  // apiPort: what GET /v1/state reports. faultSeed drives the faults given with p=.
  Simulator(int apiPort, std::uint64_t faultSeed);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  void open(const std::string& file);  // as POST /v1/open would, but before serving
  bool bind(int port);                 // on kHost; errno says why not
  int bindAnyPort();                   // a free port on kHost, or -1
  int port() const { return port_; }
  // Serves until stop(), giving the port up for the length of each down and taking it back after.
  void run();
  void stop();

  // For the page.
  void setFaults(std::vector<FaultRule> rules);
  json faults() const { return faults_.describe(); }
  Live& live() { return live_; }
  json apiConnections() const { return connections_.counts(); }
  std::string timelinePNG();  // the snapshot's picture, drawn again only after a change

 private:
  void serveApi(const httplib::Request& request, httplib::Response& response,
                const std::function<void()>& answer);

  Session session_;
  std::mutex lock_;  // the API's: every /v1 request works on the session under it
  Faults faults_;
  Live live_;
  Connections connections_;
  std::unique_ptr<httplib::Server> server_;
  int port_ = 0;
  std::atomic<bool> stopping_ = false, serving_ = false;
  std::mutex timelineLock_;
  std::uint64_t timelineVersion_ = 0;
  std::string timeline_;
};

}  // namespace tondrel::sim
