#include "sim_support.hpp"

#include <random>

namespace tondrel::sim::test {

Scratch::Scratch() {
  std::random_device random;
  dir = std::filesystem::temp_directory_path() / ("tondrel-sim-test-" + std::to_string(random()));
  std::filesystem::create_directories(dir);
}

Scratch::~Scratch() {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

std::string importTone(Session& session, const Scratch& scratch) {
  std::string path = scratch.file("tone.wav");
  if (!std::filesystem::exists(path)) writeTestTone(path);
  json result = edit(
      session, {{{"op", "track.add"}, {"name", "Tone"}}, {{"op", "clip.add"}, {"path", path}, {"track", 0}}});
  return result["created"][1];
}

json withIds(std::string text, const std::map<char, std::string>& ids) {
  for (const auto& [placeholder, id] : ids)
    for (std::size_t at; (at = text.find(placeholder)) != std::string::npos;) text.replace(at, 1, id);
  return json::parse(text);
}

}  // namespace tondrel::sim::test
