// A stand-in for the editor's local API that is never what gets measured: every
// answer is prepared before the first request, and buffers are reused warm.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace bench {

// Bytes that are only ever written before being read, so growing them costs no zero-fill.
struct Buffer {
  std::unique_ptr<char[]> data;
  std::size_t capacity = 0, used = 0;
  void reserve(std::size_t size);
};

// PNG-signed random bytes, `size` in all.
std::string makePng(std::size_t size, std::uint64_t seed = 1);
// A compact project document of about `size` bytes: tracks, clips, notes, some non-ASCII names.
std::string makeDocument(std::size_t size);

class Editor {
 public:
  // Serves `png` as /v1/snapshot.png and `document` as /v1/document, on an
  // ephemeral port of 127.0.0.1, from a thread of its own.
  Editor(std::string png, std::string document);
  ~Editor();
  Editor(const Editor&) = delete;
  Editor& operator=(const Editor&) = delete;

  int port() const { return port_; }
  int connections() const { return accepted_.load(); }
  const std::string& state() const { return state_; }
  const std::string& png() const { return png_; }
  const std::string& document() const { return document_; }
  static std::string_view replacedAnswer() { return R"({"ok":true,"replaced":true})"; }
  // Whether the last PUT /v1/document carried exactly `expected`; forgets it either way.
  bool replacedWith(std::string_view expected);

 private:
  struct Answer {
    std::string head;
    const std::string* body;
  };
  struct Connection {
    int fd;
    Buffer in;
    std::size_t headEnd = 0, need = 0;  // set once the request head is complete
    const Answer* answer = nullptr;     // being written
    std::size_t sent = 0;
    unsigned events = 1;  // EPOLLIN
  };

  // Each returns false when the connection is done with.
  void loop();
  bool read(Connection& c);
  bool serve(Connection& c);
  bool flush(Connection& c);
  bool watch(Connection& c, unsigned events);
  const Answer& route(std::string_view method, std::string_view path);
  void keep(Connection& c);
  void close(Connection& c);

  std::string state_, png_, document_, ok_ = R"({"ok":true})", notFound_ = R"({"error":"not found"})";
  Answer stateAnswer_, pngAnswer_, documentAnswer_, replacedAnswer_, okAnswer_, notFoundAnswer_;
  std::string replacedBody_ = std::string(replacedAnswer());
  int listener_ = -1, epoll_ = -1, port_ = 0;
  std::atomic<int> accepted_{0};
  std::atomic<bool> stop_{false};
  std::vector<std::unique_ptr<Connection>> open_;
  std::vector<Buffer> spare_;  // buffers of closed connections, already paged in

  std::mutex replacedLock_;
  Buffer replaced_;                                   // the buffer holding the last replaced document ...
  std::size_t replacedBegin_ = 0, replacedSize_ = 0;  // ... and where in it
  bool hasReplaced_ = false;
  std::thread thread_;
};

}  // namespace bench
