#include "stand_in_editor.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <stdexcept>

namespace tondrel::test {

void StandInEditor::answer(CannedAnswer answer) {
  std::lock_guard lock(mutex_);
  answer_ = std::move(answer);
}

std::vector<RecordedRequest> StandInEditor::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

namespace {

// A listening socket on a free loopback port.
int listenOnLoopback() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);  // a server process started later must not hold the port
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 16) != 0)
    throw std::runtime_error("cannot listen on loopback");
  return fd;
}

int boundPort(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

}  // namespace

ScriptedServer::ScriptedServer(Script script) : script_(std::move(script)) {
  listener_ = listenOnLoopback();
  port_ = boundPort(listener_);
  if (::pipe(stop_) != 0) throw std::runtime_error("pipe");
  for (int fd : stop_) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  thread_ = std::thread([this] {
    for (;;) {
      pollfd fds[] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
      ::poll(fds, 2, -1);
      if (fds[1].revents) return;
      int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) continue;
      ::fcntl(connection, F_SETFD, FD_CLOEXEC);
      std::lock_guard lock(mutex_);
      open_.push_back(connection);
      threads_.emplace_back([this, connection] { serve(connection); });
    }
  });
}

void ScriptedServer::serve(int connection) {
  for (;;) {
    std::string request = readRequest(connection);
    if (request.empty()) break;
    int number;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      number = int(requests_.size());
    }
    if (!script_(connection, number, request)) break;
  }
  ::shutdown(connection, SHUT_RDWR);
}

ScriptedServer::~ScriptedServer() {
  [[maybe_unused]] auto woken = ::write(stop_[1], "x", 1);
  thread_.join();
  {
    // Like an editor that quits: its open connections go with it.
    std::lock_guard lock(mutex_);
    for (int connection : open_) ::shutdown(connection, SHUT_RDWR);
  }
  for (auto& thread : threads_) thread.join();
  for (int connection : open_) ::close(connection);
  ::close(listener_);
  ::close(stop_[0]);
  ::close(stop_[1]);
}

int ScriptedServer::requests(std::string_view method) const {
  std::lock_guard lock(mutex_);
  int count = 0;
  for (const auto& request : requests_) count += request.starts_with(method);
  return count;
}

std::string readRequest(int fd) {
  std::string data;
  char chunk[65536];
  std::size_t need = std::string::npos;
  while (data.size() < need) {
    ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return data;  // "" when the peer closed between requests
    data.append(chunk, n);
    auto head = data.find("\r\n\r\n");
    if (need == std::string::npos && head != std::string::npos) {
      std::size_t length = 0;
      std::string lower = data.substr(0, head);
      for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (auto at = lower.find("content-length:"); at != std::string::npos)
        length = std::stoul(lower.substr(at + 15));
      need = head + 4 + length;
    }
  }
  return data;
}

void writeText(int fd, const std::string& text) {
  // A peer that hung up must fail the send, not raise SIGPIPE; macOS says so per socket.
#ifdef MSG_NOSIGNAL
  constexpr int kNoSignal = MSG_NOSIGNAL;
#else
  constexpr int kNoSignal = 0;
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::send(fd, text.data() + done, text.size() - done, kNoSignal);
    if (n <= 0) return;
    done += n;
  }
}

int closedPort() {
  int fd = listenOnLoopback();
  int port = boundPort(fd);
  ::close(fd);
  return port;
}

namespace {

RecordedRequest parseRequest(const std::string& text) {
  RecordedRequest request;
  std::size_t lineEnd = text.find("\r\n"), head = text.find("\r\n\r\n");
  std::size_t space = text.find(' '), second = text.find(' ', space + 1);
  request.method = text.substr(0, space);
  request.target = text.substr(space + 1, second - space - 1);
  for (std::size_t at = lineEnd + 2; at < head;) {
    std::size_t end = text.find("\r\n", at), colon = text.find(':', at);
    std::string name = text.substr(at, colon - at);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::size_t value = text.find_first_not_of(" \t", colon + 1);
    request.headers[name] = value < end ? text.substr(value, end - value) : "";
    at = end + 2;
  }
  request.body = text.substr(head + 4);
  return request;
}

}  // namespace

StandInEditor::StandInEditor()
    : server_([this](int fd, int, const std::string& text) {
        CannedAnswer answer;
        {
          std::lock_guard lock(mutex_);
          requests_.push_back(parseRequest(text));
          answer = answer_;
        }
        writeText(fd, "HTTP/1.1 " + std::to_string(answer.status) + " Stand-in\r\nContent-Type: " +
                          answer.contentType + "\r\nContent-Length: " + std::to_string(answer.body.size()) +
                          "\r\n\r\n" + answer.body);
        return true;
      }) {}

}  // namespace tondrel::test
