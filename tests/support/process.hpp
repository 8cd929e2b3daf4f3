// Runs the built tondrel-mcp as a host would: real pipes, its own environment.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tondrel::test {

struct Finished {
  std::string out;
  std::string err;
  int status = -1;  // exit status, or -1 when it did not exit normally
};

// Feeds input to a fresh tondrel-mcp and collects all it writes until it exits.
// environment entries ("NAME=value") are added to this process's own.
Finished runServer(std::string_view input, const std::vector<std::string>& environment = {});

}  // namespace tondrel::test
