// The line loop: each line of input gets its answer, one line on output, in
// order. It knows lines, not what they say.
#pragma once

#include <string>
#include <string_view>

#include "answer_writer.hpp"
#include "line_reader.hpp"

namespace tondrel {

// What the loop asks of whoever answers the lines.
class LineHandler {
 public:
  virtual ~LineHandler() = default;
  // Appends the answer to line (followed by readable padding) to out, or nothing,
  // and says false; or says true when the answer waits for something outside the
  // process: the answers before it are written out first, then finish() appends
  // it. Never throws.
  virtual bool answer(std::string_view line, Buffer& out) = 0;
  virtual void finish(Buffer& out) = 0;
  // Appends the answer to a line that did not fit in memory. Never throws.
  virtual void unreadable(Buffer& out) = 0;
  // Gives back the memory a large line or answer needed.
  virtual void release() = 0;
};

// Serves until input ends or the reader of the answers goes away. Answers to
// lines that arrive together go out in one write, but never wait behind one that
// waits.
void serveLines(LineReader& lines, AnswerWriter& answers, LineHandler& handler);

}  // namespace tondrel
