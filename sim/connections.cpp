#include "connections.hpp"

#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>

namespace tondrel::sim {

namespace {

// More than any page and agent need at once; past it a connection waits for a thread.
constexpr std::size_t kMostThreads = 512;

// cpp-httplib's queue answers void in older versions and bool (taken or not) in newer ones.
using Enqueued = decltype(std::declval<httplib::TaskQueue&>().enqueue(std::function<void()>()));

class ConnectionQueue : public httplib::TaskQueue {
 public:
  explicit ConnectionQueue(Connections& connections) : connections_(connections) {}
  Enqueued enqueue(std::function<void()> task) override {
    connections_.run(std::move(task));
    return static_cast<Enqueued>(true);
  }
  void shutdown() override {}

 private:
  Connections& connections_;
};

int port(const sockaddr_storage& address) {
  return address.ss_family == AF_INET ? ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port) : -1;
}

// The socket of the connection between these two loopback ports, or -1. cpp-httplib keeps
// it from its handlers, and both Linux and macOS list a process's descriptors in /dev/fd.
int socketBetween(int localPort, int remotePort) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/fd", error)) {
    int fd = std::atoi(entry.path().filename().c_str());
    sockaddr_storage local{}, remote{};
    socklen_t size = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0 || port(local) != localPort)
      continue;
    size = sizeof remote;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&remote), &size) == 0 && port(remote) == remotePort)
      return fd;
  }
  return -1;
}

}  // namespace

struct Connections::Connection {
  bool api = false;
  int localPort = -1, remotePort = -1;
};

namespace {
thread_local Connections::Connection* current = nullptr;
}

httplib::TaskQueue* Connections::newTaskQueue() {
  return new ConnectionQueue(*this);
}

void Connections::run(std::function<void()> task) {
  std::lock_guard guard(mutex_);
  tasks_.push_back(std::move(task));
  if (tasks_.size() > idle_ && threads_.size() < kMostThreads) {
    threads_.emplace_back([this] {
      std::unique_lock lock(mutex_);
      for (;;) {
        ++idle_;
        work_.wait(lock, [&] { return !tasks_.empty() || joining_; });
        --idle_;
        if (tasks_.empty()) return;
        std::function<void()> next = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        Connection connection;
        current = &connection;
        next();
        current = nullptr;
        lock.lock();
        finish(connection);
        if (connection.api && apiClosed_) {
          lock.unlock();
          apiClosed_();
          lock.lock();
        }
      }
    });
  } else {
    work_.notify_one();
  }
}

void Connections::finish(Connection& connection) {
  if (connection.api) --open_;
  if (serving_ == &connection) serving_ = nullptr;
  turn_.notify_all();
}

void Connections::join() {
  for (;;) {
    std::vector<std::thread> threads;
    {
      std::lock_guard guard(mutex_);
      joining_ = true;
      work_.notify_all();
      turn_.notify_all();
      threads.swap(threads_);
    }
    if (threads.empty()) return;
    for (std::thread& thread : threads) thread.join();
  }
}

void Connections::markApi(const httplib::Request& request) {
  std::lock_guard guard(mutex_);
  if (!current || current->api) return;
  current->api = true;
  current->localPort = request.local_port;
  current->remotePort = request.remote_port;
  most_ = std::max(most_, ++open_);
}

void Connections::awaitTurn(const std::function<bool()>& serial, const std::function<bool()>& stopping) {
  std::unique_lock lock(mutex_);
  turn_.wait(lock, [&] { return !serial() || stopping() || serving_ == nullptr || serving_ == current; });
  if (serial() && !stopping()) serving_ = current;
}

void Connections::wakeWaiters() {
  std::lock_guard guard(mutex_);
  turn_.notify_all();
}

void Connections::closeCurrent() {
  if (!current) return;
  if (int fd = socketBetween(current->localPort, current->remotePort); fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

json Connections::counts() const {
  std::lock_guard guard(mutex_);
  return {{"open", open_}, {"most", most_}};
}

}  // namespace tondrel::sim
