#include "forwarded.hpp"

#include <simdjson.h>

#include <array>

#include "compact_json.hpp"
#include "text_cursor.hpp"

namespace tondrel {
namespace {

using Cursor = TextCursor;

bool isDelimiter(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == ',' || c == ':' || c == '"' || c == '{' ||
         c == '}' || c == '[' || c == ']';
}

// Moves past one value of valid JSON; on anything else, stops somewhere or
// fails. What it passes over is checked by the parser later.
bool skipValue(Cursor& c) {
  std::size_t depth = 0;
  do {
    c.blanks();
    char ch = c.peek();
    if (ch == '"') {
      for (++c.p; c.p < c.end && *c.p != '"'; ++c.p)
        if (*c.p == '\\') ++c.p;
      if (c.p >= c.end) return false;
      ++c.p;
    } else if (ch == '{' || ch == '[') {
      ++depth, ++c.p;
    } else if (ch == '}' || ch == ']' || ch == ',' || ch == ':') {
      if (depth == 0) return false;
      if (ch == '}' || ch == ']') --depth;
      ++c.p;
    } else if (ch == '\0') {
      return false;
    } else {
      while (c.p < c.end && !isDelimiter(*c.p)) ++c.p;
    }
  } while (depth > 0);
  return true;
}

// Where the values of the first members with the given keys begin in the object
// at c (nullptr when absent), read no further than the last of them; nothing when
// a key has an escape (it might read as one of them).
template <std::size_t N>
std::optional<std::array<const char*, N>> members(Cursor c, const std::array<std::string_view, N>& keys) {
  std::array<const char*, N> found{};
  std::size_t missing = N;
  c.blanks();
  if (!c.eat('{')) return std::nullopt;
  c.blanks();
  if (c.eat('}')) return found;
  do {
    c.blanks();
    if (!c.eat('"')) return std::nullopt;
    const char* key = c.p;
    while (c.p < c.end && *c.p != '"' && *c.p != '\\') ++c.p;
    if (c.peek() != '"') return std::nullopt;
    std::string_view name(key, c.p++ - key);
    c.blanks();
    if (!c.eat(':')) return std::nullopt;
    c.blanks();
    for (std::size_t i = 0; i < N; ++i)
      if (!found[i] && name == keys[i]) {
        found[i] = c.p;
        if (--missing == 0) return found;
      }
    if (!skipValue(c)) return std::nullopt;
    c.blanks();
  } while (c.eat(','));
  if (!c.eat('}')) return std::nullopt;
  return found;
}

// The tool a name's text names, read as it stands: a name with an escape is
// left to the parser.
const ToolDefinition* namedTool(const char* value, const char* end) {
  Cursor c{value, end};
  if (!c.eat('"')) return nullptr;
  const char* name = c.p;
  while (c.p < end && *c.p != '"' && *c.p != '\\') ++c.p;
  if (c.peek() != '"') return nullptr;
  return findTool(std::string_view(name, c.p - name));
}

}  // namespace

std::optional<ForwardedLine> splitForwarded(std::string_view line) {
  const char* end = line.data() + line.size();
  auto root = members<1>({line.data(), end}, {"params"});
  if (!root || !(*root)[0]) return std::nullopt;
  auto fields = members<2>({(*root)[0], end}, {"name", "arguments"});
  if (!fields || !(*fields)[0] || !(*fields)[1]) return std::nullopt;
  const ToolDefinition* tool = namedTool((*fields)[0], end);
  if (!tool) return std::nullopt;
  const Argument* forwarded = nullptr;
  for (const Argument& argument : tool->arguments)
    if (argument.read == Read::structured) forwarded = &argument;
  if (!forwarded) return std::nullopt;

  ForwardedLine split{tool, forwarded->name, {}, {}, {}};
  char kind = forwarded->type == JsonType::array ? '[' : '{';
  auto arguments = members<1>({(*fields)[1], end}, {split.key});
  if (!arguments || !(*arguments)[0] || (*arguments)[0] == end || *(*arguments)[0] != kind)
    return std::nullopt;
  const char* value = (*arguments)[0];
  const char* valueEnd = compactPrefix({value, std::size_t(end - value)}, split.written, split.as);
  if (!valueEnd) return std::nullopt;
  split.line.reserve(line.size() - (valueEnd - value) + 2 + simdjson::SIMDJSON_PADDING);
  split.line.append(line.substr(0, value - line.data()))
      .append(kind == '{' ? "{}" : "[]")
      .append(line.substr(valueEnd - line.data()));
  return split;
}

}  // namespace tondrel
