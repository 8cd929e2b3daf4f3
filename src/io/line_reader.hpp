// Bytes in, lines out. Nothing here knows what a line means.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace tondrel {

// Where the line reader's bytes come from.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Reads up to size bytes into buffer, waiting for them as long as it takes;
  // returns how many, 0 once input has ended. Never throws.
  virtual std::size_t read(char* buffer, std::size_t size) = 0;
};

// Splits a byte stream into lines, each followed by readable padding so that the
// parser can work on it where it lies, without a copy.
class LineReader {
 public:
  struct Line {
    std::string_view text;  // without its terminator (LF or CRLF); `padding` readable bytes follow it
    bool tooLarge = false;  // the line did not fit in memory: its bytes were skipped, text is empty
  };

  LineReader(ByteSource& source, std::size_t padding) : source_(source), padding_(padding) {}
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader();

  // The next line; nothing at the end of input. Never throws. The line stays
  // readable until the next call.
  std::optional<Line> next();
  // Whether next() has a line ready without waiting for input.
  bool hasLine() const;
  // Gives back the memory a long line needed, once it has been handled.
  void release();

 private:
  bool grow();
  void fill();
  void skipRestOfLine();

  ByteSource& source_;
  std::size_t padding_;
  char* buffer_ = nullptr;
  std::size_t capacity_ = 0, begin_ = 0, scan_ = 0, end_ = 0;
  std::size_t faulted_ = 0;  // the buffer's pages up to here are faulted in
  bool atEnd_ = false;
};

}  // namespace tondrel
