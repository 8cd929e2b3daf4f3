#include "line_reader.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "large_buffers.hpp"

namespace tondrel {
namespace {

constexpr std::size_t kMinRead = 16 * 1024;
constexpr std::size_t kKeep = 1 << 20;        // what the buffer keeps between lines at most
constexpr std::size_t kFaultAhead = 2 << 20;  // how far a long line's pages are faulted in ahead of it

}  // namespace

LineReader::~LineReader() {
  std::free(buffer_);
}

bool LineReader::hasLine() const {
  return atEnd_ ? begin_ < end_ : scan_ < end_ && std::memchr(buffer_ + scan_, '\n', end_ - scan_);
}

std::optional<LineReader::Line> LineReader::next() {
  for (;;) {
    auto* lf = scan_ < end_ ? static_cast<char*>(std::memchr(buffer_ + scan_, '\n', end_ - scan_)) : nullptr;
    if (lf) {
      std::size_t begin = begin_, length = lf - (buffer_ + begin);
      begin_ = scan_ = begin + length + 1;
      if (length > 0 && buffer_[begin + length - 1] == '\r') --length;
      return Line{{buffer_ + begin, length}};
    }
    scan_ = end_;
    if (atEnd_) {
      if (begin_ == end_) return std::nullopt;
      Line last{{buffer_ + begin_, end_ - begin_}};
      begin_ = scan_ = end_;
      return last;
    }
    if (!grow()) {
      skipRestOfLine();
      return Line{{}, true};
    }
    fill();
  }
}

bool LineReader::grow() {
  if (begin_ > 0) {  // keep only the unfinished line
    std::memmove(buffer_, buffer_ + begin_, end_ - begin_);
    end_ -= begin_, scan_ -= begin_, begin_ = 0;
  }
  if (capacity_ - end_ >= padding_ + kMinRead) return true;
  // realloc can move large blocks by remapping pages, without copying them.
  std::size_t capacity = std::max(capacity_ * 2, padding_ + 4 * kMinRead);
  auto* grown = static_cast<char*>(std::realloc(buffer_, capacity));
  if (!grown) return false;
  buffer_ = grown, capacity_ = capacity;
  adviseHugePages(buffer_, capacity_);
  return true;
}

void LineReader::fill() {
  if (capacity_ > kKeep && faulted_ < end_ + kFaultAhead / 2) {
    std::size_t from = std::max(faulted_, end_);
    faulted_ = std::min(capacity_, from + kFaultAhead);
    faultIn(buffer_ + from, faulted_ - from);
  }
  std::size_t n = source_.read(buffer_ + end_, capacity_ - end_ - padding_);
  if (n == 0)
    atEnd_ = true;
  else
    end_ += n;
}

// The line in the buffer cannot grow any further: drop what has come of it and
// whatever follows until its line feed, reading into the buffer we have.
void LineReader::skipRestOfLine() {
  begin_ = scan_ = end_ = 0;
  if (capacity_ < padding_ + kMinRead) atEnd_ = true;  // not even a first buffer: nothing can be read
  while (!atEnd_) {
    fill();
    if (auto* lf = static_cast<char*>(std::memchr(buffer_, '\n', end_))) {
      begin_ = scan_ = lf + 1 - buffer_;
      return;
    }
    end_ = 0;
  }
}

void LineReader::release() {
  std::size_t unread = end_ - begin_;
  if (capacity_ <= kKeep || unread + padding_ + kMinRead > kKeep) return;
  std::memmove(buffer_, buffer_ + begin_, unread);
  scan_ -= begin_, begin_ = 0, end_ = unread;
  if (auto* shrunk = static_cast<char*>(std::realloc(buffer_, kKeep))) buffer_ = shrunk, capacity_ = kKeep;
  faulted_ = std::min(faulted_, end_);
}

}  // namespace tondrel
