// tondrel-editor-sim: a headless stand-in for the Tondrel editor's HTTP API,
// for machines where the editor cannot run.
#include <httplib.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include "audio.hpp"
#include "http.hpp"

namespace {

constexpr const char* kUsage =
    "usage: tondrel-editor-sim [--port N]   serve the editor's API on 127.0.0.1 (default: TONDREL_API_PORT "
    "or 17910)\n"
    "       tondrel-editor-sim --write-test-tone FILE.wav   write a 4-second test tone with two silences\n";

int portNumber(const char* text) {
  char* end = nullptr;
  long value = text ? std::strtol(text, &end, 10) : 0;
  return text && *text && *end == 0 && value > 0 && value < 65536 ? int(value) : 0;
}

}  // namespace

int main(int argc, char** argv) {
  int port = portNumber(std::getenv("TONDREL_API_PORT"));
  if (port == 0) port = 17910;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (argument == "--port" && i + 1 < argc) {
      port = portNumber(argv[++i]);
      if (port == 0) {
        std::cerr << "tondrel-editor-sim: --port needs a number from 1 to 65535\n";
        return 2;
      }
    } else if (argument == "--write-test-tone" && i + 1 < argc) {
      try {
        tondrel::sim::writeTestTone(argv[++i]);
        return 0;
      } catch (const std::exception& error) {
        std::cerr << "tondrel-editor-sim: " << error.what() << '\n';
        return 1;
      }
    } else {
      std::cerr << kUsage;
      return argument == "--help" || argument == "-h" ? 0 : 2;
    }
  }
  std::signal(SIGPIPE, SIG_IGN);
  tondrel::sim::Session session(port);
  std::mutex lock;
  httplib::Server server;
  tondrel::sim::installRoutes(server, session, lock);
  if (!server.listen("127.0.0.1", port)) {
    std::cerr << "tondrel-editor-sim: cannot listen on 127.0.0.1:" << port << '\n';
    return 1;
  }
  return 0;
}
