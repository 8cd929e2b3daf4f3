// What the tests of the live page and of the faults share: the page's live state, an
// event stream read as a page reads it, and what an agent reads when the editor is gone.
#pragma once

#include <string>

#include "document.hpp"

namespace tondrel::sim::test {

// '#' stands for the port.
inline const std::string kUnreachable =
    "Tondrel is not reachable at http://127.0.0.1:# \u2014 launch /Applications/Tondrel.app and retry.";
std::string withPort(std::string text, int port);

json liveState(int port);  // GET /live.json; null when it gets no answer

// GET /events on a connection of its own, as an open page holds it.
class EventStream {
 public:
  explicit EventStream(int port);
  ~EventStream();
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  // The next event (after those already taken) whose text holds `piece`, waiting for it
  // up to 10 s; "" if none came.
  std::string waitFor(const std::string& piece);

 private:
  int fd_ = -1;
  std::string text_;
  std::size_t from_ = 0;
};

}  // namespace tondrel::sim::test
