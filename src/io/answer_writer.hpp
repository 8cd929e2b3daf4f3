// Answers out, whole lines in order, on standard output.
#pragma once

#include "buffer.hpp"

namespace tondrel {

// Writes answers as whole lines, in order: on a non-blocking descriptor it waits
// until the pipe takes more; only a reader that has gone away stops it.
class AnswerWriter {
 public:
  explicit AnswerWriter(int output) : fd_(output) {}

  // Answers waiting to be written, each ending in a line feed.
  Buffer& pending() { return pending_; }
  // Writes everything pending; false once the reader has gone.
  bool flush();
  // Gives back the memory a large answer needed.
  void release();

 private:
  int fd_;
  Buffer pending_;
};

}  // namespace tondrel
