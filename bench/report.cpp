#include "report.hpp"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace bench {
namespace {

struct Stats {
  double median = 0, min = 0, max = 0;
};
Stats stats(const std::vector<double>& v) {
  if (v.empty()) return {};
  auto [min, max] = std::minmax_element(v.begin(), v.end());
  return {percentile(v, 0.5), *min, *max};
}

std::string digits(double value, const std::string& unit) {
  char text[64];
  if (unit == "/s")
    std::snprintf(text, sizeof text, "%.1fk", value / 1000);
  else if (unit.empty() || unit == "instr")
    std::snprintf(text, sizeof text, "%.0f", value);
  else
    std::snprintf(text, sizeof text, value < 10 ? "%.2f" : "%.1f", value);
  return text;
}
std::string number(double value, const std::string& unit) {
  return digits(value, unit) + (unit.empty() || unit == "/s" ? unit : " " + unit);
}

// "25.0 µs (24.1–26.3), 0.61×": the median, the spread when there is one, the ratio to the reference.
std::string cell(const std::vector<double>& values, const std::string& unit, double reference) {
  if (values.empty()) return "";
  Stats s = stats(values);
  std::string text = number(s.median, unit), low = digits(s.min, unit), high = digits(s.max, unit);
  if (low != high) text += " (" + low + "–" + high + ")";
  if (reference > 0) {
    char ratio[32];
    std::snprintf(ratio, sizeof ratio, ", %.2f×", s.median / reference);
    text += ratio;
  }
  return text;
}

}  // namespace

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, std::size_t(p * v.size()))];
}

std::string now() {
  std::time_t t = std::time(nullptr);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M %Z", std::localtime(&t));
  return text;
}

std::string describeMachine() {
  std::string cpu = "unknown";
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);)
    if (line.starts_with("model name")) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  utsname system{};
  ::uname(&system);
  return std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " cores (nproc), " + cpu + ", Linux " +
         system.release;
}

std::string loadAverage() {
  std::string load;
  std::getline(std::ifstream("/proc/loadavg"), load);
  std::size_t end = 0;
  for (int field = 0; field < 3 && end != std::string::npos; ++field) end = load.find(' ', end + 1);
  return load.substr(0, end);
}

void printTable(const Run& run) {
  std::cout << "Date: " << run.date << "\nMachine: " << run.machine
            << "\nLoad average (1, 5, 15 min): " << run.loadBefore << " before, " << run.loadAfter
            << " after\nEvery process and thread on CPU " << run.cpu << "\nServers:";
  for (const Server& s : run.servers) {
    std::cout << " " << s.name << " = " << s.path;
    for (const std::string& e : s.environment) std::cout << " " << e;
    std::cout << (&s == &run.servers.back() ? "\n" : ";");
  }
  std::cout << "Medians of " << run.repetitions << " interleaved repetitions (min–max), and their ratio to "
            << run.servers.front().name << "'s\n\n| Figure |";
  for (const Server& s : run.servers) std::cout << " " << s.name << " |";
  std::cout << " Floor |\n|---|";
  for (std::size_t i = 0; i < run.servers.size(); ++i) std::cout << "---|";
  std::cout << "---|\n";
  for (const Figure& f : run.figures) {
    if (std::all_of(f.servers.begin(), f.servers.end(), [](const auto& v) { return v.empty(); })) continue;
    double reference = stats(f.servers.front()).median;
    std::cout << "| " << f.title << " |";
    for (std::size_t i = 0; i < f.servers.size(); ++i)
      std::cout << " " << cell(f.servers[i], f.unit, i ? reference : 0) << " |";
    std::string floor;
    for (const Series& part : f.floor)
      if (!part.values.empty())
        floor += (floor.empty() ? "" : " + ") + part.name + " " + number(stats(part.values).median, f.unit);
    std::cout << " " << floor << " |\n";
  }
  std::cout << "\nAnswers checked: " << run.passed << " right, " << run.failed << " wrong\n";
}

void writeJson(const Run& run, const std::string& path) {
  using nlohmann::json;
  json servers = json::array(), figures = json::array();
  for (const Server& s : run.servers)
    servers.push_back({{"name", s.name}, {"path", s.path}, {"environment", s.environment}});
  for (const Figure& f : run.figures) {
    json values = json::object(), floor = json::object();
    for (std::size_t i = 0; i < f.servers.size(); ++i)
      if (!f.servers[i].empty()) values[run.servers[i].name] = f.servers[i];
    for (const Series& part : f.floor)
      if (!part.values.empty()) floor[part.name] = part.values;
    if (!values.empty())
      figures.push_back(
          {{"key", f.key}, {"title", f.title}, {"unit", f.unit}, {"servers", values}, {"floor", floor}});
  }
  json document = {{"date", run.date},
                   {"machine", run.machine},
                   {"load_average", {{"before", run.loadBefore}, {"after", run.loadAfter}}},
                   {"cpu", run.cpu},
                   {"repetitions", run.repetitions},
                   {"servers", servers},
                   {"figures", figures},
                   {"answers", {{"right", run.passed}, {"wrong", run.failed}}}};
  std::ofstream out(path);
  out << document.dump(1) << "\n";
  if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace bench
