// Turning a tool call into one request on the editor's HTTP API.
#pragma once

#include <string>
#include <string_view>

namespace tondrel {

// A query value made safe for the editor's URL: percent-encoded outside the
// characters a query may carry, and "&" and "+" encoded too so that they stay data.
std::string escapeQueryValue(std::string_view value);

}  // namespace tondrel
