// tondrel-mcp: the MCP server on standard input and output, bridged to the
// Tondrel editor's local HTTP API.
#include <map>
#include <string>

#include "build_info.hpp"
#include "proxy.hpp"
#include "server.hpp"

extern char** environ;

int main() {
  std::map<std::string, std::string> environment;
  for (char** entry = environ; *entry; ++entry) {
    std::string text(*entry);
    auto equals = text.find('=');
    if (equals != std::string::npos) environment.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  std::string base = tondrel::apiBaseURL(environment);
  tondrel::TondrelMCPServer server(tondrel::curlTransport(base, 30.0), base, tondrel::kVersion);
  server.run();
  return 0;
}
