// Operations on the project as a whole: tempo, markers and the master gain.
#include "editor.hpp"

namespace tondrel::sim {

namespace {

void tempoSet(Editor& e, const json& op) {
  json& tempo = e.doc["tempo"];
  tempo["bpm"] = e.number(op, "bpm", tempo["bpm"], 1, 999);
  tempo["numerator"] = e.integer(op, "numerator", tempo["numerator"], 1, 32);
  long long denominator = e.integer(op, "denominator", tempo["denominator"], 1, 32);
  if (denominator & (denominator - 1)) e.fail("denominator must be 1, 2, 4, 8, 16 or 32");
  tempo["denominator"] = denominator;
}

void markerAdd(Editor& e, const json& op) {
  json& markers = e.doc["markers"];
  json marker = {{"id", newUuid()},
                 {"name", op.value("name", "Marker " + std::to_string(markers.size() + 1))},
                 {"time", e.time(op, "time", 0)}};
  e.created.push_back(marker["id"]);
  markers.push_back(marker);
  sortBy(markers, "time");
}

void markerRemove(Editor& e, const json& op) {
  json& markers = e.doc["markers"];
  const json& reference = op["marker"];
  for (std::size_t i = 0; i < markers.size(); ++i)
    if (reference.is_string() ? markers[i]["id"] == reference : double(i) == reference.get<double>()) {
      markers.erase(markers.begin() + long(i));
      return;
    }
  e.fail("no marker " + reference.dump() + ": the project has " + std::to_string(markers.size()) +
         " markers");
}

void masterGain(Editor& e, const json& op) {
  e.doc["masterGainDB"] = e.number(op, "db", 0, kGainDB);
}

constexpr Operation kOperations[] = {
    {"tempo.set", tempoSet},
    {"marker.add", markerAdd},
    {"marker.remove", markerRemove},
    {"master.gain", masterGain},
};

}  // namespace

std::span<const Operation> projectOperations() {
  return kOperations;
}

}  // namespace tondrel::sim
