// One tool call: its arguments checked, its one request sent to the editor, and
// the answer (or what went wrong) made a tool result.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "editor_client.hpp"
#include "json.hpp"
#include "tool_result.hpp"

namespace tondrel {

inline constexpr std::string_view kAnswerTooLarge =
    "The editor's answer was too large for the memory available.";

// An argument that reaches callTool as JSON text already written, the way
// JsonWriter writes it; its parsed value is an empty stand-in of the same kind.
struct ForwardedArgument {
  std::string_view key;
  std::string_view json;
};

// Carries out a call of a catalogued tool and writes its result into out as the
// editor's answer arrives; every failure comes back as a result marked as an
// error, with the text the agent reads, in place of anything written before it.
// Throws only std::bad_alloc, when not even that result fits.
void callTool(const Transport& transport, std::string_view name, const Members& args, JsonWriter& out,
              std::optional<ForwardedArgument> forwarded = std::nullopt);

// A query value made safe for the editor's URL: percent-encoded outside the
// characters a query may carry, and "&" and "+" encoded too so that they stay data.
std::string escapeQueryValue(std::string_view value);

}  // namespace tondrel
