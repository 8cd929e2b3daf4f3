// Standard input as the line reader's source. While it waits for input it also
// watches standard output, whose reader going away ends input (nobody would see
// the answers), and the editor connection kept open between calls.
#pragma once

#include "line_reader.hpp"

namespace tondrel {

// Something the loop looks after while it waits for the next line: a connection
// kept open between calls, which goes as soon as anything arrives on it and after
// kIdleSeconds without input.
class IdleWatch {
 public:
  virtual ~IdleWatch() = default;
  // The descriptor to watch, or -1 when there is none.
  virtual int descriptor() const = 0;
  // Something arrived on it, or nothing came in for kIdleSeconds.
  virtual void expire() = 0;
  // Input came, and nothing arrived on it while the loop waited.
  virtual void stayedQuiet() = 0;
};

inline constexpr int kIdleSeconds = 2;

class StandardInput final : public ByteSource {
 public:
  StandardInput(int input, int output, IdleWatch* idle = nullptr)
      : input_(input), output_(output), idle_(idle) {}
  std::size_t read(char* buffer, std::size_t size) override;

 private:
  int input_, output_;
  IdleWatch* idle_;
};

}  // namespace tondrel
