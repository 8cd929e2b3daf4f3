// The simulator on a free loopback port in this process, and what the tests of its page and
// its faults read from it: the live state, an event stream held as a page holds it, and
// what an agent reads when the editor is gone.
#pragma once

#include <httplib.h>

#include <string>
#include <thread>

#include "simulator.hpp"

namespace tondrel::sim::test {

class RunningSim {
 public:
  explicit RunningSim(const std::string& faults = "");
  ~RunningSim();
  int port() const { return port_; }
  httplib::Client client() const { return httplib::Client("127.0.0.1", port_); }

 private:
  Simulator simulator_{0, 1};
  int port_ = 0;
  std::thread thread_;
};

// '#' stands for the port.
inline const std::string kUnreachable =
    "Tondrel is not reachable at http://127.0.0.1:# \u2014 launch /Applications/Tondrel.app and retry.";
std::string withPort(std::string text, int port);

json liveState(int port);  // GET /live.json; null when it gets no answer

// GET /events on a connection of its own.
class EventStream {
 public:
  explicit EventStream(int port);
  ~EventStream();
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;
  // Whether the stream brings `piece` after what earlier waits found, within 10 s.
  bool waitFor(const std::string& piece);

 private:
  int fd_ = -1;
  std::string text_;
  std::size_t from_ = 0;
};

}  // namespace tondrel::sim::test
