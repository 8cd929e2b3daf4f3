// One tool call: its arguments read as its catalogue row says, its one request
// sent to the editor, and the answer (or what went wrong) made a tool result.
#pragma once

#include <optional>
#include <string_view>

#include "catalogue.hpp"
#include "editor_client.hpp"
#include "json_reader.hpp"
#include "json_writer.hpp"

namespace tondrel {

// An argument that reaches callTool as JSON text already written, the way
// JsonWriter writes it; its parsed value is an empty stand-in of the same kind.
struct ForwardedArgument {
  std::string_view key;
  std::string_view json;
};

// Carries out a call of the tool and writes its result into out as the editor's
// answer arrives; every failure comes back as a result marked as an error, with
// the text the agent reads, in place of anything written before it. Throws only
// std::bad_alloc, when not even that result fits.
void callTool(const Transport& transport, const ToolDefinition& tool, const Members& args, JsonWriter& out,
              std::optional<ForwardedArgument> forwarded = std::nullopt);

// The same for a tool given by name; a name the catalogue lacks fails as
// "unknown tool " and the name.
void callTool(const Transport& transport, std::string_view name, const Members& args, JsonWriter& out);

}  // namespace tondrel
