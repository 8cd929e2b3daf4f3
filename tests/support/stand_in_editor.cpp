#include "stand_in_editor.hpp"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <stdexcept>

namespace tondrel::test {

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

}  // namespace tondrel::test
