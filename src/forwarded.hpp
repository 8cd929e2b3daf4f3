// A large document or batch of edits goes to the editor as the agent sent it,
// rewritten compactly straight from the line's text: building a parsed tree of
// it first would hold several times its size and cost most of the call.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tondrel {

// Writes one JSON value given as text compactly, byte for byte as JsonWriter::value
// writes the same text once simdjson has parsed it, and says true; says false,
// leaving out as it was, for anything it does not handle exactly the same way
// (invalid JSON, nesting past 512 levels, integers past 64 bits, numbers too large
// for a double or below its normal range, lone surrogates, numbers of 64 characters
// or more). text must end where the value ends.
bool writeCompact(std::string_view text, std::string& out);

// The member forwarded by the call on a line: tondrel_replace_document's
// "document", tondrel_edit's "ops".
struct ForwardedLine {
  std::string_view key;
  std::string line;                    // the line with that member's value replaced by {} or []
  std::optional<std::string_view> as;  // the value in the line, when it stands as the writer writes it
  std::string written;                 // else the value as the writer writes it

  std::string_view json() const { return as ? *as : written; }
};

// Splits a tools/call line of either tool into the rest of the line and the
// forwarded member's value, written compactly, when it can tell that parsing the
// rest stands for parsing the whole line; nothing otherwise. The rest then
// parses exactly when the whole line would, to the same values but for that one.
// The split may refer to line, and lives no longer.
std::optional<ForwardedLine> splitForwarded(std::string_view line);

}  // namespace tondrel
