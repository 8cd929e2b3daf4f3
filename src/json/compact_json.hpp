// A large document or batch of edits goes to the editor as the agent sent it,
// rewritten compactly straight from its text: building a parsed tree of it first
// would hold several times its size and cost most of the call.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "buffer.hpp"

namespace tondrel {

// The JSON value that text begins with (after blanks), written compactly, byte for
// byte as JsonWriter::value writes the same text once simdjson has parsed it: when
// the value already stands so, `as` is set to it and out is left alone; otherwise it
// is written into out. Returns where the value ends; nullptr, leaving out as it was,
// for anything not handled exactly the same way (invalid JSON, nesting past 512
// levels, integers past 64 bits, numbers too large for a double or below its normal
// range, lone surrogates, numbers of 64 characters or more).
const char* compactPrefix(std::string_view text, Buffer& out, std::optional<std::string_view>& as);

}  // namespace tondrel
