// The member of a long tools/call line that is forwarded from the line's own text
// (the argument a tool's row reads as structured: tondrel_edit's batch, the
// document of tondrel_replace_document), so that only the rest is parsed.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "buffer.hpp"
#include "catalogue.hpp"

namespace tondrel {

struct ForwardedLine {
  const ToolDefinition* tool;          // the tool the line calls
  std::string_view key;                // its structured argument
  std::string line;                    // the line with that member's value replaced by {} or []
  std::optional<std::string_view> as;  // the value in the line, when it stands as the writer writes it
  Buffer written;                      // else the value as the writer writes it

  std::string_view json() const { return as ? *as : written.view(); }
};

// Splits a tools/call line into the rest of the line and the forwarded member's
// value, written compactly, when it can tell that parsing the rest stands for
// parsing the whole line; nothing otherwise. The rest then parses exactly when
// the whole line would, to the same values but for that one. The split may refer
// to line, and lives no longer.
std::optional<ForwardedLine> splitForwarded(std::string_view line);

}  // namespace tondrel
