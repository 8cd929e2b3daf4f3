// A large document or batch of edits goes to the editor as the agent sent it,
// rewritten compactly straight from its text: building a parsed tree of it first
// would hold several times its size and cost most of the call.
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

// The same for the value that text begins with (after blanks), which need not end
// where text does: when the value already stands as the writer writes it, `as` is
// set to it and out is left alone; otherwise it is written into out. Returns where
// the value ends, or nullptr (out as it was) where writeCompact would say false.
const char* compactPrefix(std::string_view text, std::string& out, std::optional<std::string_view>& as);

}  // namespace tondrel
