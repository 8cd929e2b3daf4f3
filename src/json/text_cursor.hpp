// A place in JSON text, for the readers that go through a line's text without
// parsing it: the compactor and the splitter of forwarded members.
#pragma once

namespace tondrel {

struct TextCursor {
  const char* p;
  const char* end;

  char peek() const { return p < end ? *p : '\0'; }  // NUL is never valid outside a string
  void blanks() {
    if (p != end && static_cast<unsigned char>(*p) > ' ') return;  // compact text has none
    while (p < end && (*p == ' ' || *p == '\n' || *p == '\r' || *p == '\t')) ++p;
  }
  bool eat(char c) {
    if (peek() != c) return false;
    ++p;
    return true;
  }
};

}  // namespace tondrel
