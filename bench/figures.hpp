// The measurements: each figure taken for every server and for the floor of this
// machine, repetitions interleaved (server A, server B, ..., floor, then again), so
// that whatever else the machine does falls on all of them alike.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "editor.hpp"
#include "process.hpp"
#include "report.hpp"

namespace bench {

struct Settings {
  int repetitions, coldStarts, stateCalls, listCalls, callgrindCalls;
  std::size_t snapshot, document, sink;
};
inline constexpr Settings kFull{5, 10, 2000, 10000, 200, 16 << 20, 20 << 20, 128 << 20};
inline constexpr Settings kQuick{2, 2, 100, 500, 0, 256 << 10, 256 << 10, 8 << 20};

class Bench {
 public:
  // `echo`: the command of the native line echo that gives the pipe and start-up floors.
  Bench(const Settings& settings, std::vector<Server> servers, std::vector<std::string> echo);

  // Every part, or only the one named: cold, state, list, snapshot, document, replace or
  // instructions. The figures come in the table's order.
  std::vector<Figure> run(std::string_view only);
  int passed() const { return passed_; }
  int failed() const { return failed_; }

 private:
  struct LargeCall {
    std::string key, tool, arguments, method, target;
    std::string_view body;
    std::size_t payload;
    std::function<bool(std::string_view)> right;
  };

  void cold();
  void state();
  void pipelined();
  void large(const LargeCall& call);
  void instructions();

  void rotate(std::string_view part, const std::function<void(std::size_t)>& server,
              const std::function<void()>& floor);
  Child start(std::size_t server);
  void end(Child& c, const std::string& name);
  void record(std::string_view key, std::size_t server, double value);
  void recordFloor(std::string_view key, std::string_view part, double value);
  bool check(bool ok, std::string_view what);

  Settings s_;
  std::vector<Server> servers_;
  std::vector<std::string> echo_;
  Editor editor_;
  std::vector<std::vector<std::string>> environments_;  // one per server
  std::vector<std::string> echoEnvironment_;
  std::vector<Figure> figures_;
  int passed_ = 0, failed_ = 0;
};

}  // namespace bench
