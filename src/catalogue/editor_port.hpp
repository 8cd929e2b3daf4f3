// Where the editor's HTTP API listens by default, and the variable that moves it:
// tondrel-mcp, its packages' manifests and the simulator all read these.
#pragma once

#include <cstdint>
#include <string_view>

namespace tondrel {

inline constexpr std::string_view kPortVariable = "TONDREL_API_PORT";
inline constexpr std::int64_t kDefaultPort = 17910;

}  // namespace tondrel
