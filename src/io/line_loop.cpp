#include "line_loop.hpp"

namespace tondrel {
namespace {

constexpr std::size_t kWriteAt = 64 * 1024;

// Ends an answer appended after mark with its line feed; an answer that cannot
// have one goes unwritten.
void endLine(Buffer& out, std::size_t mark) {
  if (out.size() == mark) return;
  try {
    out.push_back('\n');
  } catch (...) {
    out.truncate(mark);
  }
}

}  // namespace

void serveLines(LineReader& lines, AnswerWriter& answers, LineHandler& handler) {
  Buffer& out = answers.pending();
  while (auto line = lines.next()) {
    std::size_t mark = out.size();
    if (line->tooLarge) {
      handler.unreadable(out);
    } else if (handler.answer(line->text, out)) {
      if (!answers.flush()) return;
      mark = 0;
      handler.finish(out);
    }
    endLine(out, mark);
    if (out.size() < kWriteAt && lines.hasLine()) continue;
    if (!answers.flush()) return;
    answers.release();
    lines.release();
    handler.release();
  }
  answers.flush();
}

}  // namespace tondrel
