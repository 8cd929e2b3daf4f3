// tondrel-bench: drives one or more servers as a host does (a new process, pipes,
// TONDREL_API_PORT) against a fast stand-in editor, beside the floor of this
// machine taken in the same run, and prints each figure for each server with its
// ratio to the first server's. Every answer is checked.
#include <sched.h>

#include <csignal>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "figures.hpp"

namespace {

constexpr const char* kUsage =
    "usage: tondrel-bench --server [NAME=]PATH[,VAR=VALUE...] [--server ...] [--echo PATH] [--only PART]\n"
    "                     [--quick] [--json FILE] [--cpu N]\n"
    "  --server  a server to measure, the first being the reference; VAR=VALUE entries are added to its\n"
    "            environment alone (--server limit-noavx512=PATH,TONDREL_LIMIT_NO_AVX512=1)\n"
    "  --only    one part: cold, state, list, snapshot, document, replace or instructions\n"
    "  --quick   tiny sizes and two repetitions, to check the answers rather than to measure\n"
    "  --json    where to write every repetition's numbers, with the machine, the date and the servers\n"
    "  --cpu     the one CPU every process runs on (by default the first this one may use)\n";

// "NAME=PATH,VAR=VALUE,...", or a bare PATH named after its file.
bench::Server parseServer(std::string text) {
  bench::Server server;
  std::size_t equals = text.find('='), comma = text.find(',');
  if (equals != std::string::npos && equals < comma) {
    server.name = text.substr(0, equals);
    text.erase(0, equals + 1);
  }
  for (std::size_t at; (at = text.rfind(',')) != std::string::npos; text.erase(at)) {
    std::string entry = text.substr(at + 1);
    if (entry.find('=') == std::string::npos || entry.front() == '=')
      throw std::invalid_argument("not VAR=VALUE: " + entry);
    server.environment.insert(server.environment.begin(), entry);
  }
  server.path = text;
  if (server.name.empty()) server.name = text.substr(text.rfind('/') + 1);
  if (server.path.empty()) throw std::invalid_argument("a server without a path");
  return server;
}

// Pins this thread, and so the editor's thread and every process started after, to
// `cpu`, by default the first this process may use; returns the CPU.
int pinToOneCpu(int cpu) {
  cpu_set_t set;
  if (cpu < 0 && ::sched_getaffinity(0, sizeof set, &set) == 0)
    for (cpu = 0; cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &set);) ++cpu;
  CPU_ZERO(&set);
  if (cpu >= 0 && cpu < CPU_SETSIZE) CPU_SET(cpu, &set);
  if (::sched_setaffinity(0, sizeof set, &set) != 0)
    throw std::invalid_argument("cannot run on CPU " + std::to_string(cpu));
  return cpu;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a process that dies mid-request is reported, not fatal
  bool quick = false;
  int cpu = -1;
  std::string only, json, self = argv[0];
  std::vector<std::string> echo = {self.substr(0, self.rfind('/') + 1) + "bench-echo"};
  bench::Run run;
  try {
    for (int i = 1; i < argc; ++i) {
      std::string_view arg = argv[i];
      bool valued = i + 1 < argc;
      if (arg == "--quick")
        quick = true;
      else if (arg == "--server" && valued)
        run.servers.push_back(parseServer(argv[++i]));
      else if (arg == "--echo" && valued)
        echo = {argv[++i]};
      else if (arg == "--only" && valued)
        only = argv[++i];
      else if (arg == "--json" && valued)
        json = argv[++i];
      else if (arg == "--cpu" && valued)
        cpu = std::stoi(argv[++i]);
      else
        throw std::invalid_argument("unknown argument " + std::string(arg));
    }
    if (run.servers.empty()) throw std::invalid_argument("no server to measure");
    run.cpu = pinToOneCpu(cpu);  // before the editor's thread starts
  } catch (const std::logic_error& error) {  // invalid_argument, or out_of_range from stoi
    std::cerr << "tondrel-bench: " << error.what() << "\n" << kUsage;
    return 2;
  }

  run.date = bench::now();
  run.machine = bench::describeMachine();
  run.loadBefore = bench::loadAverage();
  const bench::Settings& settings = quick ? bench::kQuick : bench::kFull;
  run.repetitions = settings.repetitions;
  bench::Bench bench(settings, run.servers, echo);
  try {
    run.figures = bench.run(only);
  } catch (const std::invalid_argument& error) {
    std::cerr << "tondrel-bench: " << error.what() << "\n" << kUsage;
    return 2;
  }
  run.loadAfter = bench::loadAverage();
  run.passed = bench.passed(), run.failed = bench.failed();
  bench::printTable(run);
  if (!json.empty()) bench::writeJson(run, json);
  return run.failed ? 1 : 0;
}
