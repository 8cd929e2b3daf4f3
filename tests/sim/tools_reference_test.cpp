// docs/tools.md is what tondrel-tools-reference writes from the catalogue, with a
// call through tondrel-mcp and the simulator's answer to it, made here. After a
// change to the catalogue, TONDREL_WRITE_DOCS=1 writes the page anew.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "document.hpp"
#include "process.hpp"
#include "running_sim.hpp"
#include "sim_support.hpp"

namespace tondrel::sim::test {
namespace {

std::string output(const std::string& command) {
  std::string text;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) text.append(chunk, n);
    ::pclose(pipe);
  }
  return text;
}

TEST(ToolsReference, IsWhatTheCatalogueWritesWithACallTheSimulatorAnswered) {
  seedIds(1);  // the ids of what the call creates, as --seed 1 makes them
  RunningSim sim;
  tondrel::test::ServerProcess bridge({tondrel::test::editorAt(sim.port())});
  std::string call = tondrel::test::toolCall(
      "tondrel_edit", 1,
      R"({"label":"Intro","ops":[{"op":"track.add","name":"Drums","kind":"midi","isDrum":true},)"
      R"({"op":"marker.add","name":"Intro","time":0}]})");
  bridge.send(call);
  Scratch scratch;
  std::ofstream(scratch.file("example")) << call << bridge.readLine() << "\n";

  std::string page = output(std::string(TONDREL_TOOLS_REFERENCE) + " " + scratch.file("example"));
  const std::string path = TONDREL_DOCS_DIR "/tools.md";
  if (const char* write = std::getenv("TONDREL_WRITE_DOCS"); write && *write) std::ofstream(path) << page;
  std::ifstream written(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), page)
      << "docs/tools.md is not what the catalogue gives: TONDREL_WRITE_DOCS=1 ctest -R ToolsReference writes "
         "it";
}

}  // namespace
}  // namespace tondrel::sim::test
