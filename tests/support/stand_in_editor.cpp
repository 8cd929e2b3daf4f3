#include "stand_in_editor.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#ifdef TONDREL_TEST_HTTPLIB
#include <httplib.h>
#endif
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <stdexcept>

namespace tondrel::test {

#ifdef TONDREL_TEST_HTTPLIB
struct StandInEditor::Impl {
  httplib::Server server;
  std::thread thread;
};

StandInEditor::StandInEditor(int port) : impl_(std::make_unique<Impl>()) {
  auto record = [this](const httplib::Request& request, httplib::Response& response) {
    RecordedRequest recorded{request.method, request.target, {}, request.body};
    for (const auto& [name, value] : request.headers) {
      std::string lower = name;
      for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      recorded.headers[lower] = value;
    }
    std::lock_guard lock(mutex_);
    requests_.push_back(std::move(recorded));
    response.status = answer_.status;
    response.set_content(answer_.body, answer_.contentType.c_str());
  };
  impl_->server.Get(".*", record);
  impl_->server.Post(".*", record);
  impl_->server.Put(".*", record);
  impl_->server.set_keep_alive_max_count(1000);
  impl_->server.set_tcp_nodelay(true);
  impl_->server.set_keep_alive_timeout(1);  // stopping waits for idle connections this long
  if (port == 0) port_ = impl_->server.bind_to_any_port("127.0.0.1");
  else if (impl_->server.bind_to_port("127.0.0.1", port)) port_ = port;
  impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
}

StandInEditor::~StandInEditor() {
  impl_->server.stop();
  impl_->thread.join();
}
#endif

void StandInEditor::answer(CannedAnswer answer) {
  std::lock_guard lock(mutex_);
  answer_ = std::move(answer);
}

std::vector<RecordedRequest> StandInEditor::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

namespace {

int listenOn(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);  // a server process started later must not hold the port
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
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

ScriptedServer::ScriptedServer(Script script, int port) : script_(std::move(script)) {
  listener_ = listenOn(port);
  port_ = boundPort(listener_);
  if (::pipe(stop_) != 0) throw std::runtime_error("pipe");
  thread_ = std::thread([this] {
    for (;;) {
      pollfd fds[] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
      ::poll(fds, 2, -1);
      if (fds[1].revents) return;
      int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) continue;
      ++connections_;
      current_ = connection;
      script_(connection);
      current_ = -1;
      ::close(connection);
    }
  });
}

ScriptedServer::~ScriptedServer() {
  // Like an editor that quits: the open connection goes with it.
  if (int connection = current_; connection >= 0) ::shutdown(connection, SHUT_RDWR);
  [[maybe_unused]] auto woken = ::write(stop_[1], "x", 1);
  thread_.join();
  ::close(listener_);
  ::close(stop_[0]);
  ::close(stop_[1]);
}

std::string readRequest(int fd) {
  std::string data;
  char chunk[65536];
  std::size_t need = std::string::npos;
  while (data.size() < need) {
    ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return need == std::string::npos ? "" : data;
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
  int fd = listenOn(0);
  int port = boundPort(fd);
  ::close(fd);
  return port;
}

#ifndef TONDREL_TEST_HTTPLIB
// The same stand-in on plain sockets, where the system's compiled cpp-httplib does
// not link (a build with libc++ on Linux): a thread for each connection, kept alive
// until the client hangs up or the stand-in stops.
struct StandInEditor::Impl {
  int listener = -1;
  int stop[2] = {-1, -1};
  std::vector<int> connections;
  std::vector<std::thread> workers;
  std::thread acceptor;
};

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

StandInEditor::StandInEditor(int port) : impl_(std::make_unique<Impl>()) {
  impl_->listener = listenOn(port);
  port_ = boundPort(impl_->listener);
  if (::pipe(impl_->stop) != 0) throw std::runtime_error("pipe");
  for (int fd : impl_->stop) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  auto serve = [this](int fd) {
    for (std::string text; !(text = readRequest(fd)).empty();) {
      CannedAnswer answer;
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(parseRequest(text));
        answer = answer_;
      }
      std::string response = "HTTP/1.1 " + std::to_string(answer.status) + " Stand-in\r\nContent-Type: ";
      response.append(answer.contentType).append("\r\nContent-Length: ");
      response.append(std::to_string(answer.body.size())).append("\r\n\r\n").append(answer.body);
      writeText(fd, response);
    }
  };
  impl_->acceptor = std::thread([this, serve] {
    for (;;) {
      pollfd fds[] = {{impl_->listener, POLLIN, 0}, {impl_->stop[0], POLLIN, 0}};
      ::poll(fds, 2, -1);
      if (fds[1].revents) return;
      int connection = ::accept(impl_->listener, nullptr, nullptr);
      if (connection < 0) continue;
      ::fcntl(connection, F_SETFD, FD_CLOEXEC);
      impl_->connections.push_back(connection);
      impl_->workers.emplace_back(serve, connection);
    }
  });
}

StandInEditor::~StandInEditor() {
  // Like an editor that quits: no new connections, and the open ones closed.
  [[maybe_unused]] auto woken = ::write(impl_->stop[1], "x", 1);
  impl_->acceptor.join();
  ::close(impl_->listener);
  for (int fd : impl_->connections) ::shutdown(fd, SHUT_RDWR);
  for (auto& worker : impl_->workers) worker.join();
  for (int fd : impl_->connections) ::close(fd);
  ::close(impl_->stop[0]);
  ::close(impl_->stop[1]);
}
#endif

}  // namespace tondrel::test
