#include "running_sim.hpp"

#include <arpa/inet.h>
#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

namespace tondrel::sim::test {

RunningSim::RunningSim(const std::string& faults) {
  std::signal(SIGPIPE, SIG_IGN);  // as main does: a peer that has gone is an error, not a signal
  simulator_.setFaults(parseFaults(faults));
  port_ = simulator_.bindAnyPort();
  thread_ = std::thread([this] { simulator_.run(); });
  while (liveState(port_).is_null()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

RunningSim::~RunningSim() {
  simulator_.stop();
  thread_.join();
}

std::string withPort(std::string text, int port) {
  if (auto at = text.find('#'); at != std::string::npos) text.replace(at, 1, std::to_string(port));
  return text;
}

json liveState(int port) {
  auto answer = httplib::Client("127.0.0.1", port).Get("/live.json");
  return answer && answer->status == 200 ? json::parse(answer->body) : json();
}

EventStream::EventStream(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(std::uint16_t(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string request = "GET /events HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n";
  if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      send(fd_, request.data(), request.size(), 0) != ssize_t(request.size()))
    close(fd_), fd_ = -1;
}

EventStream::~EventStream() {
  if (fd_ >= 0) close(fd_);
}

bool EventStream::waitFor(const std::string& piece) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    if (std::size_t at = text_.find(piece, from_); at != std::string::npos)
      return from_ = at + piece.size(), true;
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd ready{fd_, POLLIN, 0};
    char buffer[65536];
    ssize_t got = 0;
    if (fd_ < 0 || left.count() <= 0 || poll(&ready, 1, int(left.count())) <= 0 ||
        (got = recv(fd_, buffer, sizeof buffer, 0)) <= 0)
      return false;
    text_.append(buffer, std::size_t(got));
  }
}

}  // namespace tondrel::sim::test
