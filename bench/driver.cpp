// Drives tondrel-mcp as a host does (fork and exec, pipes, TONDREL_API_PORT) and
// measures it against the floor of this machine, taken in the same run on the
// same stand-in editor: a native HTTP client, a native line echo on the same
// pipes, a native start-up. Prints a markdown table; checks every answer.
//
// Usage: tondrel-bench --server PATH [--echo PATH] [--only PART] [--quick]
// PART: cold, state, list, snapshot, document, replace or instructions.
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "editor.hpp"
#include "native_http.hpp"
#include "process.hpp"

extern char** environ;

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

struct Settings {
  int coldRuns, sessions, stateCalls, listCalls, largeSessions, callgrindCalls;
  std::size_t snapshot, document, sink;
};
constexpr Settings kFull{30, 5, 2000, 10000, 5, 200, 16 << 20, 20 << 20, 128 << 20};
constexpr Settings kQuick{3, 2, 100, 500, 2, 0, 256 << 10, 256 << 10, 8 << 20};

double micros(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

int passed = 0, failed = 0;
bool check(bool ok, std::string_view what) {
  ok ? ++passed : ++failed;
  if (!ok) std::cerr << "WRONG: " << what << "\n";
  return ok;
}

void ended(Child& c, std::string_view name) {
  check(finish(c), std::string(name) + " ends cleanly at the end of its input");
}

// ---------------------------------------------------------------- requests and answers

const std::string kInitialize =
    R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
    R"("capabilities":{},"clientInfo":{"name":"tondrel-bench","version":"1"}}})"
    "\n";

std::string call(long id, std::string_view tool, std::string_view arguments = {}) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/call","params":{"name":")" +
         std::string(tool) + "\"" + (arguments.empty() ? "" : R"(,"arguments":)" + std::string(arguments)) +
         "}}\n";
}
std::string list(long id) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/list"})"
         "\n";
}

// Same answer to a repeated request: `line` is `reference` (the answer to id 1) with its id replaced.
bool sameAnswer(std::string_view line, std::string_view reference, long id) {
  auto at = reference.find(R"("id":1,)");
  std::string key = "\"id\":" + std::to_string(id) + ",";
  return at != std::string_view::npos && line.substr(0, at) == reference.substr(0, at) &&
         line.substr(at, key.size()) == key && line.substr(at + key.size()) == reference.substr(at + 7);
}

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  for (std::size_t at; (at = text.find('\n')) != std::string_view::npos; text.remove_prefix(at + 1))
    lines.push_back(text.substr(0, at + 1));
  return lines;
}

std::string base64Decode(std::string_view text) {
  static const auto table = [] {
    std::array<int, 256> t{};
    t.fill(-1);
    for (int i = 0; i < 64; ++i) t["ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[i]] = i;
    return t;
  }();
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  int count = 0;
  for (unsigned char c : text) {
    if (table[c] < 0) break;  // '=' padding ends it
    bits = (bits << 6) | table[c];
    if ((count += 6) >= 8) bytes.push_back(static_cast<char>(bits >> (count -= 8)));
  }
  return bytes;
}

// The text of a successful one-text tool result, or nothing.
std::optional<std::string> resultText(std::string_view line) {
  json answer = json::parse(line, nullptr, false);
  if (answer.is_discarded() || !answer.contains("result")) return std::nullopt;
  const json& result = answer["result"];
  if (result.value("isError", true) || result["content"].size() != 1) return std::nullopt;
  return result["content"][0].value("text", "");
}

// ---------------------------------------------------------------- figures

struct Stats {
  double median = 0, min = 0, max = 0;
};
Stats stats(std::vector<double> v) {
  if (v.empty()) return {};
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}
double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, std::size_t(p * v.size()))];
}

struct Row {
  std::string figure;
  Stats value;
  std::string unit;
  std::optional<double> floor;
  std::string target;                // empty: informative only
  std::function<bool(Stats)> meets;  // judged on the figures, never fails the run
};

std::string format(double value, std::string_view unit) {
  char text[64];
  if (unit.empty() || unit == "/s" || unit == "instr")
    std::snprintf(text, sizeof text, "%.0f", value);
  else
    std::snprintf(text, sizeof text, value < 10 ? "%.2f" : "%.1f", value);
  return unit.empty() ? text : std::string(text) + " " + std::string(unit);
}

class Bench {
 public:
  Bench(const Settings& s, std::string server, std::string echo)
      : s_(s),
        editor_(makePng(s.snapshot), makeDocument(s.document)),
        server_{std::move(server)},
        echo_{std::move(echo)} {
    std::string port = "TONDREL_API_PORT=" + std::to_string(editor_.port());
    for (char** e = environ; *e; ++e)
      if (!std::string_view(*e).starts_with("TONDREL_API_PORT=")) env_.emplace_back(*e);
    env_.push_back(port);
    sink.assign(s.sink, ' ');  // paged in now, not while measuring
  }

  // Runs every part, or only the one named (to profile it alone).
  std::vector<Row> run(std::string_view only) {
    std::vector<std::pair<std::string, std::function<void()>>> parts = {
        {"cold", [&] { coldStart(); }},
        {"state", [&] { sequential(); }},
        {"list", [&] { pipelined(); }},
        {"snapshot", [&] { snapshot(); }},
        {"document", [&] { document(); }},
        {"replace", [&] { replace(); }},
        {"instructions", [&] { instructions(); }},
    };
    for (auto& [name, part] : parts) try {
        if (only.empty() || name == only) part();
      } catch (const std::exception& error) {
        check(false, name + ": " + error.what());
      }
    if (!connections_.empty())
      rows_.push_back({"Editor connections per session of GETs", stats(connections_), "", 1, "one",
                       [](Stats v) { return v.max == 1; }});
    return std::move(rows_);
  }

 private:
  Child startBridge() {
    Child c = spawn(server_, env_);
    check(initialized(exchange(c, kInitialize, 1)), "initialize answer");
    exchange(c,
             R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
             "\n",
             0);
    return c;
  }
  static bool initialized(std::string_view line) {
    json answer = json::parse(line, nullptr, false);
    return !answer.is_discarded() && answer["id"] == 0 &&
           answer["result"]["protocolVersion"] == "2025-06-18" &&
           answer["result"]["serverInfo"]["name"] == "tondrel";
  }
  // Sessions of GETs alone should keep to one connection; a PUT or POST goes on one
  // of its own, on purpose, so those sessions are not counted.
  void finishBridge(Child& c, int connectionsBefore, bool onlyGets = true) {
    ended(c, "tondrel-mcp");
    if (onlyGets) connections_.push_back(editor_.connections() - connectionsBefore);
  }

  void coldStart() {
    std::vector<double> bridge, floor, idle, floorIdle;
    for (int run = 0; run < s_.coldRuns; ++run) {  // alternated, so drift hits both alike
      auto start = Clock::now();
      Child c = spawn(server_, env_);
      std::string_view answer = exchange(c, kInitialize, 1);
      bridge.push_back(micros(start) / 1000);
      idle.push_back(mebibytes(c.pid, "VmRSS"));
      check(initialized(answer), "initialize answer");
      ended(c, "tondrel-mcp");

      start = Clock::now();
      Child e = spawn(echo_, env_);
      answer = exchange(e, kInitialize, 1);
      floor.push_back(micros(start) / 1000);
      floorIdle.push_back(mebibytes(e.pid, "VmRSS"));
      check(answer == kInitialize, "echo answer");
      ended(e, "echo");
    }
    double f = stats(floor).median;
    rows_.push_back({"Cold start: spawn to \"initialize\" answer", stats(bridge), "ms", f, "≤ 2× floor",
                     [f](Stats v) { return v.median <= 2 * f; }});
    rows_.push_back({"Idle RSS after \"initialize\"", stats(idle), "MiB", stats(floorIdle).median, "≤ 4 MiB",
                     [](Stats v) { return v.max <= 4; }});
  }

  // One call at a time, as a host waits for each answer; the first 50 of every
  // run (bridge and floors alike) only warm up and are not counted.
  void sequential() {
    constexpr int kWarmUp = 50;
    std::vector<double> bridge, http, pipe, p99s;
    std::vector<std::string> requests;
    for (long i = 0; i < kWarmUp + s_.stateCalls; ++i) requests.push_back(call(100 + i, "tondrel_state"));
    auto timed = [&](std::vector<double>& times, auto&& roundTrip) {
      bool right = true;
      for (long i = 0; i < kWarmUp + s_.stateCalls; ++i) {
        auto start = Clock::now();
        bool same = roundTrip(i);
        if (i >= kWarmUp) times.push_back(micros(start));
        right = right && same;
      }
      return right;
    };
    for (int session = 0; session < s_.sessions; ++session) {
      int before = editor_.connections();
      Child c = startBridge();
      std::string reference(exchange(c, call(1, "tondrel_state"), 1));
      check(resultText(reference) == editor_.state(), "tondrel_state answer carries the state");
      std::vector<double> times;
      check(timed(times, [&](long i) { return sameAnswer(exchange(c, requests[i], 1), reference, 100 + i); }),
            "every tondrel_state answer");
      finishBridge(c, before);
      p99s.push_back(percentile(times, 0.99));
      bridge.insert(bridge.end(), times.begin(), times.end());

      Child e = spawn(echo_, env_);
      check(timed(pipe, [&](long i) { return exchange(e, requests[i], 1) == requests[i]; }),
            "every echo answer");
      ended(e, "echo");
      NativeHttp client(editor_.port());
      check(timed(http, [&](long) { return client.request("GET", "/v1/state") == editor_.state(); }),
            "every native HTTP answer");
    }
    double h = stats(http).median, p = stats(pipe).median, m = stats(bridge).median;
    rows_.push_back({"tondrel_state round trip", stats(bridge), "µs", h + p, "≤ 1.5× floor (HTTP + pipe)",
                     [f = h + p](Stats v) { return v.median <= 1.5 * f; }});
    rows_.push_back({"tondrel_state p99 (per session)",
                     {percentile(bridge, 0.99), stats(p99s).min, stats(p99s).max},
                     "µs",
                     m,
                     "≤ 3× its median",
                     [m](Stats v) { return v.median <= 3 * m; }});
    auto p99 = [](const std::vector<double>& times) {
      return " (p99 " + format(percentile(times, 0.99), "µs") + ")";
    };
    rows_.push_back({"  floor: native HTTP GET /v1/state" + p99(http), stats(http), "µs", {}, "", {}});
    rows_.push_back({"  floor: stdio echo round trip" + p99(pipe), stats(pipe), "µs", {}, "", {}});
  }

  // Many requests written without waiting. The floor echoes as many lines as long
  // as the answers: it moves those bytes both ways, the bridge only one way.
  void pipelined() {
    std::string requests, lines;
    for (long i = 1; i <= s_.listCalls; ++i) requests += list(i);
    std::vector<double> bridge, floor;
    for (int session = 0; session < s_.sessions; ++session) {
      Child c = startBridge();
      auto start = Clock::now();
      auto answers = splitLines(exchange(c, requests, s_.listCalls));
      bridge.push_back(s_.listCalls / (micros(start) / 1e6));
      json first = json::parse(answers[0], nullptr, false);
      bool same = !first.is_discarded() && first["result"]["tools"].size() == 16;
      for (long i = 0; i < s_.listCalls; ++i) same = same && sameAnswer(answers[i], answers[0], i + 1);
      check(same, "every tools/list answer lists 16 tools");
      ended(c, "tondrel-mcp");  // no tool call, no connection to count
      if (lines.empty())
        for (long i = 0; i < s_.listCalls; ++i) lines.append(answers[0].size() - 1, 'x') += '\n';

      Child e = spawn(echo_, env_);
      start = Clock::now();
      check(exchange(e, lines, s_.listCalls) == lines, "pipelined echo");
      floor.push_back(s_.listCalls / (micros(start) / 1e6));
      ended(e, "echo");
    }
    rows_.push_back({"Pipelined \"tools/list\" answers", stats(bridge), "/s", stats(floor).median,
                     "≥ 150000/s", [](Stats v) { return v.median >= 150'000; }});
  }

  // A large call, first in a fresh process and then warm, with the floor:
  // the same request by the native client plus an echo of the longer line.
  // firstLimit: a time in ms, or (negative) a multiple of the floor. Memory after
  // the calls is read after one more small call, once the large answer is out.
  void large(std::string_view name, std::string_view tool, std::string_view arguments, std::size_t payload,
             double firstLimit, double peakTimes, std::string_view method, std::string_view target,
             std::string_view body, const std::function<bool(std::string_view)>& right) {
    std::vector<double> first, warm, peak, above, http, pipe;
    std::string request2 = call(2, tool, arguments), request3 = call(3, tool, arguments);
    std::size_t longest = request2.size();
    for (int session = 0; session < s_.largeSessions; ++session) {
      int before = editor_.connections();
      Child c = startBridge();
      check(resultText(exchange(c, call(1, "tondrel_state"), 1)).has_value(),
            "tondrel_state before a large call");
      double small = mebibytes(c.pid, "VmRSS");
      for (auto* request : {&request2, &request3}) {
        auto start = Clock::now();
        std::string_view answer = exchange(c, *request, 1);
        (request == &request2 ? first : warm).push_back(micros(start) / 1000);
        peak.push_back(mebibytes(c.pid, "VmHWM"));
        longest = std::max(longest, answer.size());
        check(right(answer), std::string(tool) + " answer byte-exact");
      }
      check(resultText(exchange(c, call(4, "tondrel_state"), 1)).has_value(), "tondrel_state after a large call");
      above.push_back(mebibytes(c.pid, "VmRSS") - small);
      finishBridge(c, before, method == "GET");
    }
    NativeHttp client(editor_.port());
    std::string line(longest - 1, 'x');
    line += '\n';
    Child e = spawn(echo_, env_);
    for (int run = 0; run < 4; ++run) {  // the first run of each only pages in
      auto start = Clock::now();
      std::string_view answer = client.request(method, target, body);
      if (run) http.push_back(micros(start) / 1000);
      check(answer.size() == (method == "GET" ? payload : Editor::replacedAnswer().size()),
            "native HTTP answer");
      start = Clock::now();
      check(exchange(e, line, 1).size() == line.size(), "echo of a long line");
      if (run) pipe.push_back(micros(start) / 1000);
    }
    ended(e, "echo");
    editor_.replacedWith("");
    double f = stats(http).median + stats(pipe).median, mib = payload / 1048576.0, w = stats(warm).median;
    char text[64];
    if (firstLimit < 0)
      std::snprintf(text, sizeof text, "≤ %.1f× floor", -firstLimit);
    else
      std::snprintf(text, sizeof text, "≤ %.0f ms", firstLimit);
    rows_.push_back({std::string(name) + ", first call", stats(first), "ms", f, text, [firstLimit, f](Stats v) {
                       return firstLimit < 0 ? v.median <= -firstLimit * f : v.median <= firstLimit;
                     }});
    rows_.push_back({std::string(name) + ", warm (second call)", stats(warm), "ms", f, "", {}});
    rows_.push_back({std::string(name) + ", first call against warm", stats(first), "ms", w, "≤ 1.3× warm",
                     [w](Stats v) { return v.median <= 1.3 * w; }});
    std::snprintf(text, sizeof text, "≤ %.1f× payload", peakTimes);
    rows_.push_back({std::string(name) + ", peak RSS", stats(peak), "MiB", mib, text,
                     [peakTimes, mib](Stats v) { return v.max <= peakTimes * mib; }});
    rows_.push_back({std::string(name) + ", RSS after it, above that after a small call", stats(above), "MiB",
                     {}, "≤ 8 MiB", [](Stats v) { return v.max <= 8; }});
  }

  void snapshot() {
    large("tondrel_snapshot " + size(s_.snapshot), "tondrel_snapshot", "", s_.snapshot, -1.2, 2.2, "GET",
          "/v1/snapshot.png", "", [&](std::string_view line) {
            json answer = json::parse(line, nullptr, false);
            if (answer.is_discarded()) return false;
            const json& image = answer["result"]["content"][0];
            return image["type"] == "image" && image["mimeType"] == "image/png" &&
                   base64Decode(image["data"].get<std::string>()) == editor_.png();
          });
  }
  void document() {
    large("tondrel_document " + size(s_.document), "tondrel_document", "", editor_.document().size(), -1.2, 1.8,
          "GET", "/v1/document", "", [&](std::string_view line) { return resultText(line) == editor_.document(); });
  }
  void replace() {
    std::string arguments = R"({"document":)" + editor_.document() + "}";
    large("tondrel_replace_document " + size(s_.document), "tondrel_replace_document", arguments,
          editor_.document().size(), 80, 3, "PUT", "/v1/document", editor_.document(), [&](std::string_view line) {
            return resultText(line) == Editor::replacedAnswer() && editor_.replacedWith(editor_.document());
          });
  }
  static std::string size(std::size_t bytes) {
    return bytes >= (1 << 20) ? std::to_string(bytes >> 20) + " MiB" : std::to_string(bytes >> 10) + " KiB";
  }

  // Instructions per request under callgrind: runs of K and 2K requests, so
  // that start-up and the first call's set-up cancel out.
  void instructions() {
    std::string valgrind = which("valgrind");
    if (!s_.callgrindCalls || valgrind.empty()) return;
    auto count = [&](const std::string& program, bool bridge, auto request, long calls) {
      std::string file = "/tmp/tondrel-bench-" + std::to_string(::getpid()) + ".callgrind";
      Child c = spawn(
          {valgrind, "--tool=callgrind", "--log-file=/dev/null", "--callgrind-out-file=" + file, program},
          env_);
      if (bridge) check(initialized(exchange(c, kInitialize, 1)), "initialize answer under callgrind");
      std::string reference(exchange(c, request(1), 1));
      bool same = true;
      for (long i = 2; i <= calls; ++i) same = same && sameAnswer(exchange(c, request(i), 1), reference, i);
      check(same && (bridge || reference == request(1)), "answers under callgrind");
      ended(c, "callgrind");
      return callgrindTotal(file);
    };
    long k = s_.callgrindCalls;
    auto per = [&](const std::string& program, bool bridge, auto request) {
      return (count(program, bridge, request, 2 * k) - count(program, bridge, request, k)) / k;
    };
    auto state = [](long id) { return call(id, "tondrel_state"); };
    double echo = per(echo_[0], false, state);
    rows_.push_back({"Instructions per tondrel_state call", {}, "instr", echo, "", {}});
    rows_.back().value.median = rows_.back().value.min = rows_.back().value.max =
        per(server_[0], true, state);
    rows_.push_back({"Instructions per \"tools/list\"", {}, "instr", echo, "", {}});
    rows_.back().value.median = rows_.back().value.min = rows_.back().value.max = per(server_[0], true, list);
  }

  const Settings& s_;
  Editor editor_;
  std::vector<std::string> server_, echo_, env_;
  std::vector<double> connections_;
  std::vector<Row> rows_;
};

// The machine the figures belong to, and how busy it was.
void describeMachine() {
  std::string cpu = "unknown", load;
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);)
    if (line.starts_with("model name")) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  std::getline(std::ifstream("/proc/loadavg") >> std::ws, load);
  utsname system{};
  ::uname(&system);
  std::cout << "Machine: " << ::sysconf(_SC_NPROCESSORS_ONLN) << " cores (nproc), " << cpu << ", Linux "
            << system.release << ", load average " << load.substr(0, load.find(' ', load.find(' ') + 1))
            << "\n\n";
}

void print(const std::vector<Row>& rows, bool quick) {
  std::cout << "| Figure | Median | Min | Max | Floor | Ratio | Target | Result |\n"
            << "|---|---:|---:|---:|---:|---:|---|---|\n";
  for (const Row& r : rows) {
    std::string floor = r.floor ? format(*r.floor, r.unit) : "", ratio;
    if (r.floor && *r.floor > 0) {
      char text[32];
      std::snprintf(text, sizeof text, "%.2f×", r.value.median / *r.floor);
      ratio = text;
    }
    std::string result = r.target.empty() ? "" : quick ? "(quick)" : r.meets(r.value) ? "met" : "**missed**";
    std::cout << "| " << r.figure << " | " << format(r.value.median, r.unit) << " | "
              << format(r.value.min, r.unit) << " | " << format(r.value.max, r.unit) << " | " << floor
              << " | " << ratio << " | " << r.target << " | " << result << " |\n";
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a process that dies mid-request is reported, not fatal
  bool quick = false;
  std::string only, server,
      echo = std::string(argv[0]).substr(0, std::string(argv[0]).rfind('/') + 1) + "bench-echo";
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--quick")
      quick = true;
    else if (arg == "--server" && i + 1 < argc)
      server = argv[++i];
    else if (arg == "--echo" && i + 1 < argc)
      echo = argv[++i];
    else if (arg == "--only" && i + 1 < argc)
      only = argv[++i];
    else
      return std::cerr << "usage: tondrel-bench --server PATH [--echo PATH] [--only PART] [--quick]\n", 2;
  }
  if (server.empty())
    return std::cerr << "usage: tondrel-bench --server PATH [--echo PATH] [--only PART] [--quick]\n", 2;

  bench::Bench run(quick ? bench::kQuick : bench::kFull, server, echo);
  auto rows = run.run(only);
  bench::describeMachine();
  bench::print(rows, quick);
  std::cout << (quick ? "\nbench quick: " : "\nbench: ") << bench::passed << " passed, " << bench::failed
            << " failed\n";
  return bench::failed ? 1 : 0;
}
