// tondrel-editor-sim: a headless stand-in for the Tondrel editor's HTTP API,
// for machines where the editor cannot run.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <random>
#include <string>

#include "audio.hpp"
#include "editor_port.hpp"
#include "project_files.hpp"
#include "simulator.hpp"

namespace {

using tondrel::sim::kHost;

std::string usage() {
  std::string port = std::string(tondrel::kPortVariable) + " or " + std::to_string(tondrel::kDefaultPort);
  return "usage: tondrel-editor-sim [--port N] [--seed N] [--open FILE] [--faults LIST]\n"
         "         serve the editor's API on " +
         std::string(kHost) + ", port N (default: " + port +
         "), and its live page at /\n"
         "         --seed N       make the ids of new tracks, clips, notes and markers, and the faults\n"
         "                        given with p=, the same on every run\n"
         "         --open FILE    start from a project file (.tondrel or .json, as save writes it) or an "
         "audio "
         "file\n"
         "         --faults LIST  make /v1 fail on purpose, for example\n"
         "                        delay=3s/every=4,status500/p=0.1,close/every=7,down=10s/after=3,serial\n"
         "       tondrel-editor-sim --write-test-tone FILE.wav   write a 4-second test tone with two "
         "silences\n";
}

long number(const char* text, long low, long high) {
  char* end = nullptr;
  errno = 0;
  long value = text && *text ? std::strtol(text, &end, 10) : low - 1;
  return end && *end == 0 && errno == 0 && value >= low && value <= high ? value : low - 1;
}

int fail(const std::string& message, int status = 1) {
  std::cerr << "tondrel-editor-sim: " << message << '\n';
  return status;
}

struct Options {
  int port = 0;
  std::optional<unsigned long> seed;
  std::optional<std::string> open;
  std::vector<tondrel::sim::FaultRule> faults;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const char* fromEnvironment = std::getenv(std::string(tondrel::kPortVariable).c_str());
  options.port = int(fromEnvironment ? number(fromEnvironment, 1, 65535) : -1);
  if (options.port <= 0) options.port = int(tondrel::kDefaultPort);
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (argument == "--port" && value) {
      options.port = int(number(argv[++i], 1, 65535));
      if (options.port <= 0) return fail("--port needs a number from 1 to 65535", 2);
    } else if (argument == "--seed" && value) {
      long seed = number(argv[++i], 0, 2147483647);
      if (seed < 0) return fail("--seed needs a number from 0 to 2147483647", 2);
      options.seed = static_cast<unsigned long>(seed);
    } else if (argument == "--faults" && value) {
      try {
        options.faults = tondrel::sim::parseFaults(argv[++i]);
      } catch (const std::exception& error) {
        return fail(std::string("--faults: ") + error.what(), 2);
      }
    } else if (argument == "--open" && value) {
      options.open = std::filesystem::absolute(argv[++i]).string();
    } else if (argument == "--write-test-tone" && value) {
      try {
        tondrel::sim::writeTestTone(argv[++i]);
        return 0;
      } catch (const std::exception& error) {
        return fail(error.what());
      }
    } else {
      std::cerr << usage();
      return argument == "--help" || argument == "-h" ? 0 : 2;
    }
  }

  std::signal(SIGPIPE, SIG_IGN);
  if (options.seed) tondrel::sim::seedIds(*options.seed);
  tondrel::sim::Simulator simulator(options.port, options.seed ? *options.seed : std::random_device()());
  try {
    if (options.open) simulator.open(*options.open);
  } catch (const std::exception& error) {
    return fail("cannot open " + *options.open + ": " + error.what());
  }
  simulator.setFaults(options.faults);
  if (!simulator.bind(options.port)) {
    if (errno == EADDRINUSE)
      return fail("port " + std::to_string(options.port) +
                  " is already in use (another simulator or the editor?)");
    return fail("cannot listen on " + std::string(kHost) + ":" + std::to_string(options.port) + ": " +
                std::strerror(errno));
  }
  // Said once, to a person: nothing reads standard error while the simulator serves a host.
  if (isatty(2))
    std::cerr << "tondrel-editor-sim: the live page is at http://" << kHost << ":" << options.port << "/\n";
  simulator.run();
  return 0;
}
