// What a run found, and how it is shown: a markdown table for people, JSON with
// every repetition for whoever reads the numbers again.
#pragma once

#include <string>
#include <vector>

namespace bench {

// A program measured: its name in the table, its path, and entries (VAR=VALUE) added
// to its environment alone.
struct Server {
  std::string name, path;
  std::vector<std::string> environment;
};

// One value per repetition.
struct Series {
  std::string name;
  std::vector<double> values;
};

struct Figure {
  std::string key, title, unit;
  std::vector<std::vector<double>> servers;  // in the order of the servers
  std::vector<Series> floor;                 // parts of the floor, summed
};

struct Run {
  std::string date, machine, loadBefore, loadAfter;
  int cpu = 0, repetitions = 0;
  std::vector<Server> servers;
  std::vector<Figure> figures;
  int passed = 0, failed = 0;
};

// The value below which a share p of them lie (0.5: the median); 0 for none.
double percentile(std::vector<double> values, double p);

// The local date and time, the machine in one line, its load average over 1, 5 and 15 minutes.
std::string now();
std::string describeMachine();
std::string loadAverage();

void printTable(const Run& run);
void writeJson(const Run& run, const std::string& path);

}  // namespace bench
