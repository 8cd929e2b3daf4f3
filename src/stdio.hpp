// Bytes in, lines out: the line reader on standard input and the answer writer on
// standard output. Nothing here knows what a line means.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tondrel {

// Splits a byte stream into lines, each followed by readable padding so that the
// parser can work on it where it lies, without a copy. Input also ends when the
// reader of `output` goes away: nobody would see the answers.
class LineReader {
 public:
  struct Line {
    std::string_view text;  // without its terminator (LF or CRLF); `padding` readable bytes follow it
    bool tooLarge = false;  // the line did not fit in memory: its bytes were skipped, text is empty
  };

  LineReader(int input, int output, std::size_t padding);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader();

  // The next line; nothing at the end of input. Never throws.
  std::optional<Line> next();
  // Whether next() has a line ready without waiting for input.
  bool hasLine() const;
  // Gives back the memory a long line needed, once it has been handled.
  void release();

 private:
  bool grow();
  void fill();
  void skipRestOfLine();

  int fd_, output_;
  std::size_t padding_;
  char* buffer_ = nullptr;
  std::size_t capacity_ = 0, begin_ = 0, scan_ = 0, end_ = 0;
  bool atEnd_ = false;
};

// Writes answers to standard output as whole lines, in order: on a non-blocking
// descriptor it waits until the pipe takes more; only a reader that has gone
// away stops it.
class AnswerWriter {
 public:
  explicit AnswerWriter(int output) : fd_(output) {}

  // Answers waiting to be written, each ending in a line feed.
  std::string& pending() { return pending_; }
  // Writes everything pending; false once the reader has gone.
  bool flush();
  // Gives back the memory a large answer needed.
  void release();

 private:
  int fd_;
  std::string pending_;
};

}  // namespace tondrel
