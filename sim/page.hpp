// The live page's own paths, outside /v1: its files, its event stream, the live state
// as JSON, each logged request with its bodies, the timeline's picture and the fault controls.
#pragma once

#include <cstddef>
#include <iterator>
#include <string_view>

namespace httplib {
class Server;
}

namespace tondrel::sim {

class Simulator;

struct PageFile {
  const char* name;  // served at /name, index.html at /
  std::string_view body;
};
extern const PageFile kPageFiles[];  // sim/page/, built into the binary
extern const std::size_t kPageFileCount;

void installPageRoutes(httplib::Server& server, Simulator& simulator);

}  // namespace tondrel::sim
