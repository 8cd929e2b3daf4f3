#include "figures.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "answers.hpp"
#include "native_http.hpp"

extern char** environ;

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

double micros(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}
double median(std::vector<double> v) {
  return percentile(std::move(v), 0.5);
}

std::string size(std::size_t bytes) {
  return bytes >= (1 << 20) ? std::to_string(bytes >> 20) + " MiB" : std::to_string(bytes >> 10) + " KiB";
}

}  // namespace

Bench::Bench(const Settings& settings, std::vector<Server> servers, std::vector<std::string> echo)
    : s_(settings),
      servers_(std::move(servers)),
      echo_(std::move(echo)),
      editor_(makePng(settings.snapshot), makeDocument(settings.document)) {
  for (char** e = environ; *e; ++e)
    if (!std::string_view(*e).starts_with("TONDREL_API_PORT=")) echoEnvironment_.emplace_back(*e);
  echoEnvironment_.push_back("TONDREL_API_PORT=" + std::to_string(editor_.port()));
  for (const Server& server : servers_) {
    auto& environment = environments_.emplace_back(echoEnvironment_);
    for (const std::string& entry : server.environment) {
      std::string name = entry.substr(0, entry.find('=') + 1);
      std::erase_if(environment, [&](const std::string& e) { return e.starts_with(name); });
      environment.push_back(entry);
    }
  }
  sink.assign(s_.sink, ' ');  // paged in now, not while measuring

  std::string snapshot = size(s_.snapshot) + " snapshot, first call",
              document = size(s_.document) + " document, first call",
              replace = size(s_.document) + " replace_document, first call";
  auto figure = [&](std::string key, std::string title, std::string unit) {
    return Figure{std::move(key),
                  std::move(title),
                  std::move(unit),
                  std::vector<std::vector<double>>(servers_.size()),
                  {}};
  };
  figures_ = {
      figure("start", "start to initialize answer", "ms"),
      figure("idle_rss", "idle RSS after initialize", "MiB"),
      figure("state", "tondrel_state per call, median", "µs"),
      figure("state_p99", "tondrel_state per call, p99", "µs"),
      figure("list", "tools/list pipelined", "/s"),
      figure("snapshot", snapshot, "ms"),
      figure("snapshot_peak", snapshot + ", peak RSS", "MiB"),
      figure("document", document, "ms"),
      figure("document_peak", document + ", peak RSS", "MiB"),
      figure("replace", replace, "ms"),
      figure("replace_peak", replace + ", peak RSS", "MiB"),
      figure("kept", "memory kept after a large call", "MiB"),
      figure("instructions_state", "instructions per tondrel_state call", "instr"),
      figure("instructions_list", "instructions per tools/list", "instr"),
      figure("connections", "editor connections per session of GETs", ""),
  };
}

std::vector<Figure> Bench::run(std::string_view only) {
  const std::pair<std::string_view, std::function<void()>> parts[] = {
      {"cold", [&] { cold(); }},
      {"state", [&] { state(); }},
      {"list", [&] { pipelined(); }},
      {"snapshot",
       [&] {
         large({"snapshot",
                "tondrel_snapshot",
                "",
                "GET",
                "/v1/snapshot.png",
                {},
                s_.snapshot,
                [&](std::string_view line) { return imageIs(line, editor_.png()); }});
       }},
      {"document",
       [&] {
         large({"document",
                "tondrel_document",
                "",
                "GET",
                "/v1/document",
                {},
                editor_.document().size(),
                [&](std::string_view line) { return resultText(line) == editor_.document(); }});
       }},
      {"replace",
       [&] {
         large({"replace", "tondrel_replace_document", R"({"document":)" + editor_.document() + "}", "PUT",
                "/v1/document", editor_.document(), editor_.document().size(), [&](std::string_view line) {
                  return resultText(line) == Editor::replacedAnswer() &&
                         editor_.replacedWith(editor_.document());
                }});
       }},
      {"instructions", [&] { instructions(); }},
  };
  bool known = only.empty();
  for (auto& [name, part] : parts)
    if (only.empty() || name == only) known = true, part();
  if (!known) throw std::invalid_argument("no part named " + std::string(only));
  return figures_;
}

// Repetition after repetition, each server in turn and then the floor. A server
// that fails is reported and the others go on.
void Bench::rotate(std::string_view part, const std::function<void(std::size_t)>& server,
                   const std::function<void()>& floor) {
  auto guarded = [&](const std::string& who, const std::function<void()>& measure) {
    try {
      measure();
    } catch (const std::exception& error) {
      check(false, who + ", " + std::string(part) + ": " + error.what());
    }
  };
  for (int repetition = 0; repetition < s_.repetitions; ++repetition) {
    for (std::size_t i = 0; i < servers_.size(); ++i) guarded(servers_[i].name, [&] { server(i); });
    guarded("floor", floor);
  }
}

Child Bench::start(std::size_t server) {
  Child c = spawn({servers_[server].path}, environments_[server]);
  check(initialized(exchange(c, kInitialize, 1)), servers_[server].name + ": initialize answer");
  exchange(c, kInitialized, 0);
  return c;
}

void Bench::end(Child& c, const std::string& name) {
  check(finish(c), name + " ends cleanly at the end of its input, having written only its answers");
}

bool Bench::check(bool ok, std::string_view what) {
  ok ? ++passed_ : ++failed_;
  if (!ok) std::cerr << "WRONG: " << what << "\n";
  return ok;
}

void Bench::record(std::string_view key, std::size_t server, double value) {
  auto f = std::find_if(figures_.begin(), figures_.end(), [&](const Figure& f) { return f.key == key; });
  f->servers[server].push_back(value);
}

void Bench::recordFloor(std::string_view key, std::string_view part, double value) {
  auto f = std::find_if(figures_.begin(), figures_.end(), [&](const Figure& f) { return f.key == key; });
  auto p = std::find_if(f->floor.begin(), f->floor.end(), [&](const Series& s) { return s.name == part; });
  if (p == f->floor.end()) p = f->floor.insert(p, Series{std::string(part), {}});
  p->values.push_back(value);
}

// A repetition is several fresh starts, of which the median counts.
void Bench::cold() {
  auto starts = [&](const std::string& name, const std::vector<std::string>& argv,
                    const std::vector<std::string>& environment, bool echo) {
    std::vector<double> times, rss;
    for (int n = 0; n < s_.coldStarts; ++n) {
      auto begin = Clock::now();
      Child c = spawn(argv, environment);
      std::string_view answer = exchange(c, kInitialize, 1);
      times.push_back(micros(begin) / 1000);
      rss.push_back(mebibytes(c.pid, "VmRSS"));
      check(echo ? answer == kInitialize : initialized(answer), name + ": initialize answer");
      end(c, name);
    }
    return std::pair{median(times), median(rss)};
  };
  rotate(
      "cold",
      [&](std::size_t i) {
        auto [ms, mib] = starts(servers_[i].name, {servers_[i].path}, environments_[i], false);
        record("start", i, ms);
        record("idle_rss", i, mib);
      },
      [&] {
        auto [ms, mib] = starts("echo", echo_, echoEnvironment_, true);
        recordFloor("start", "spawn", ms);
        recordFloor("idle_rss", "echo", mib);
      });
}

// One call at a time, as a host waits for each answer; the first 50 of every
// repetition (server and floors alike) only warm up and are not counted.
void Bench::state() {
  constexpr int kWarmUp = 50;
  std::vector<std::string> requests;
  for (long n = 0; n < kWarmUp + s_.stateCalls; ++n) requests.push_back(call(100 + n, "tondrel_state"));
  auto timed = [&](std::vector<double>& times, auto&& roundTrip) {
    bool right = true;
    for (long n = 0; n < kWarmUp + s_.stateCalls; ++n) {
      auto begin = Clock::now();
      bool same = roundTrip(n);
      if (n >= kWarmUp) times.push_back(micros(begin));
      right = right && same;
    }
    return right;
  };
  rotate(
      "state",
      [&](std::size_t i) {
        const std::string& name = servers_[i].name;
        int before = editor_.connections();
        Child c = start(i);
        std::string reference(exchange(c, call(1, "tondrel_state"), 1));
        check(resultText(reference) == editor_.state(), name + ": tondrel_state answer carries the state");
        std::vector<double> times;
        check(
            timed(times, [&](long n) { return sameAnswer(exchange(c, requests[n], 1), reference, 100 + n); }),
            name + ": every tondrel_state answer");
        end(c, name);
        record("connections", i, editor_.connections() - before);
        record("state", i, median(times));
        record("state_p99", i, percentile(times, 0.99));
      },
      [&] {
        std::vector<double> pipe, http;
        Child e = spawn(echo_, echoEnvironment_);
        check(timed(pipe, [&](long n) { return exchange(e, requests[n], 1) == requests[n]; }),
              "echo: every answer");
        end(e, "echo");
        NativeHttp client(editor_.port());
        check(timed(http, [&](long) { return client.request("GET", "/v1/state") == editor_.state(); }),
              "native HTTP: every answer");
        recordFloor("state", "HTTP", median(http));
        recordFloor("state", "echo", median(pipe));
      });
}

// Many requests written without waiting. The floor echoes as many lines as long
// as the answers: it moves those bytes both ways, a server only one way.
void Bench::pipelined() {
  std::string requests, lines;
  for (long n = 1; n <= s_.listCalls; ++n) requests += list(n);
  rotate(
      "list",
      [&](std::size_t i) {
        Child c = start(i);
        auto begin = Clock::now();
        auto answers = splitLines(exchange(c, requests, s_.listCalls));
        record("list", i, s_.listCalls / (micros(begin) / 1e6));
        auto first = nlohmann::json::parse(answers[0], nullptr, false);
        bool same = !first.is_discarded() && first["result"]["tools"].size() == 16;
        for (long n = 0; n < s_.listCalls; ++n) same = same && sameAnswer(answers[n], answers[0], n + 1);
        check(same, servers_[i].name + ": every tools/list answer lists 16 tools");
        end(c, servers_[i].name);  // no tool call, no connection to count
        if (lines.empty())
          for (long n = 0; n < s_.listCalls; ++n) lines.append(answers[0].size() - 1, 'x') += '\n';
      },
      [&] {
        if (lines.empty()) return;  // no server answered
        Child e = spawn(echo_, echoEnvironment_);
        auto begin = Clock::now();
        check(exchange(e, lines, s_.listCalls) == lines, "echo: pipelined lines");
        recordFloor("list", "echo", s_.listCalls / (micros(begin) / 1e6));
        end(e, "echo");
      });
}

// A large call, the first of its kind in a fresh process (after one small call, so
// that the editor client is loaded and connected), and the memory left once a small
// call follows it. The floor: the same request by the native client plus an echo of
// a line as long, both warm.
void Bench::large(const LargeCall& l) {
  std::string request = call(2, l.tool, l.arguments), line;
  std::size_t longest = request.size();
  bool onlyGets = l.method == "GET";  // a PUT goes on a connection of its own, on purpose
  std::optional<Child> echo;
  std::optional<NativeHttp> client;
  auto floor = [&](bool counted) {
    auto begin = Clock::now();
    std::string_view answer = client->request(l.method, l.target, l.body);
    double http = micros(begin) / 1000;
    check(answer.size() == (onlyGets ? l.payload : Editor::replacedAnswer().size()),
          "native HTTP: " + l.tool);
    begin = Clock::now();
    check(exchange(*echo, line, 1).size() == line.size(), "echo: a long line");
    if (!counted) return;
    recordFloor(l.key, l.method, http);
    recordFloor(l.key, "echo", micros(begin) / 1000);
    recordFloor(l.key + "_peak", "payload", l.payload / 1048576.0);
  };
  rotate(
      l.key,
      [&](std::size_t i) {
        const std::string& name = servers_[i].name;
        int before = editor_.connections();
        Child c = start(i);
        check(resultText(exchange(c, call(1, "tondrel_state"), 1)).has_value(),
              name + ": tondrel_state before a large call");
        double small = mebibytes(c.pid, "VmRSS");
        auto begin = Clock::now();
        std::string_view answer = exchange(c, request, 1);
        record(l.key, i, micros(begin) / 1000);
        record(l.key + "_peak", i, mebibytes(c.pid, "VmHWM"));
        longest = std::max(longest, answer.size());
        check(l.right(answer), name + ": " + l.tool + " answer byte for byte");
        check(resultText(exchange(c, call(3, "tondrel_state"), 1)).has_value(),
              name + ": tondrel_state after a large call");
        record("kept", i, mebibytes(c.pid, "VmRSS") - small);
        end(c, name);
        if (onlyGets) record("connections", i, editor_.connections() - before);
      },
      [&] {
        if (!echo) {  // the first floor of the part only pages in
          line.assign(longest - 1, 'x') += '\n';
          echo = spawn(echo_, echoEnvironment_);
          client.emplace(editor_.port());
          floor(false);
        }
        floor(true);
      });
  if (echo) end(*echo, "echo");
  editor_.replacedWith("");
}

// Instructions per request under callgrind: runs of K and 2K requests, so that
// start-up and the first call's set-up cancel out. Counts repeat exactly: one run
// of each server is enough.
void Bench::instructions() {
  std::string valgrind = which("valgrind");
  if (!s_.callgrindCalls || valgrind.empty()) return;
  auto count = [&](const std::vector<std::string>& program, const std::vector<std::string>& environment,
                   bool server, const std::function<std::string(long)>& request, long calls) {
    std::string file = "/tmp/tondrel-bench-" + std::to_string(::getpid()) + ".callgrind";
    std::vector<std::string> argv = {valgrind, "--tool=callgrind", "--log-file=/dev/null",
                                     "--callgrind-out-file=" + file};
    argv.insert(argv.end(), program.begin(), program.end());
    Child c = spawn(argv, environment);
    if (server) check(initialized(exchange(c, kInitialize, 1)), program[0] + ": initialize under callgrind");
    std::string reference(exchange(c, request(1), 1));
    bool same = server || reference == request(1);
    for (long n = 2; n <= calls; ++n) same = same && sameAnswer(exchange(c, request(n), 1), reference, n);
    check(same, program[0] + ": answers under callgrind");
    end(c, program[0] + " under callgrind");
    return callgrindTotal(file);
  };
  long k = s_.callgrindCalls;
  auto per = [&](const std::vector<std::string>& program, const std::vector<std::string>& environment,
                 bool server, const std::function<std::string(long)>& request) {
    return (count(program, environment, server, request, 2 * k) -
            count(program, environment, server, request, k)) /
           k;
  };
  auto stateCall = [](long id) { return call(id, "tondrel_state"); };
  for (std::size_t i = 0; i < servers_.size(); ++i) try {
      record("instructions_state", i, per({servers_[i].path}, environments_[i], true, stateCall));
      record("instructions_list", i, per({servers_[i].path}, environments_[i], true, list));
    } catch (const std::exception& error) {
      check(false, servers_[i].name + ", instructions: " + error.what());
    }
  double echo = per(echo_, echoEnvironment_, false, stateCall);
  recordFloor("instructions_state", "echo", echo);
  recordFloor("instructions_list", "echo", echo);
}

}  // namespace bench
