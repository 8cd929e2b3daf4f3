// The simulator's connections. cpp-httplib keeps a worker for each connection as long
// as it lives, so a fixed pool would let open pages (event streams) take every worker
// and leave /v1 waiting: here each connection gets a thread of its own. Also counts
// the connections that carry /v1 requests, serves them one at a time when asked to
// behave as a single-threaded editor, and ends one without an answer.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

#include "document.hpp"

namespace httplib {
class TaskQueue;
struct Request;
}  // namespace httplib

namespace tondrel::sim {

class Connections {
 public:
  Connections() = default;
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;
  ~Connections() { join(); }

  // For httplib::Server::new_task_queue: a queue that hands each connection to a thread.
  // The queue may go (the server stopped listening) while its connections go on.
  httplib::TaskQueue* newTaskQueue();
  void join();  // once the server has stopped: waits for every connection to end

  // The connection the calling thread serves carries /v1 requests.
  void markApi(const httplib::Request& request);
  // Under `serial()`, waits until no other /v1 connection is being served; the turn lasts
  // as long as this connection. Never waits once `stopping()` says so.
  void awaitTurn(const std::function<bool()>& serial, const std::function<bool()>& stopping);
  void wakeWaiters();  // the serial setting changed
  // Ends the calling thread's connection now, without an answer.
  void closeCurrent();
  json counts() const;  // {"open": /v1 connections now, "most": the most at once since start}
  // Called, outside any lock of ours, after a connection that carried /v1 requests ends.
  void whenApiClosed(std::function<void()> call) { apiClosed_ = std::move(call); }

  void run(std::function<void()> task);  // serves one connection on a thread of its own
  struct Connection;

 private:
  void finish(Connection& connection);

  mutable std::mutex mutex_;
  std::condition_variable turn_, work_;
  std::deque<std::function<void()>> tasks_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool joining_ = false;
  int open_ = 0, most_ = 0;
  const Connection* serving_ = nullptr;  // the one connection served under serial
  std::function<void()> apiClosed_;
};

}  // namespace tondrel::sim
