// Feeds any bytes to the line reader in pieces of sizes the input chooses, and
// checks that the lines are the input split at its line feeds, a CR before each
// taken off, the last line kept though no line feed ends it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "line_reader.hpp"

namespace {

class Pieces final : public tondrel::ByteSource {
 public:
  Pieces(std::string_view input, std::uint8_t seed) : input_(input), seed_(seed) {}
  std::size_t read(char* buffer, std::size_t size) override {
    std::size_t piece = 1 + (seed_ = std::uint8_t(seed_ * 37 + 11)) % 97;
    std::size_t n = std::min({size, piece, input_.size()});
    std::memcpy(buffer, input_.data(), n);
    input_.remove_prefix(n);
    return n;
  }

 private:
  std::string_view input_;
  std::uint8_t seed_;
};

std::vector<std::string> expected(std::string_view input) {
  std::vector<std::string> lines;
  while (!input.empty()) {
    std::size_t lf = input.find('\n');
    std::string_view line = input.substr(0, lf);
    if (lf != std::string_view::npos && line.ends_with('\r')) line.remove_suffix(1);
    lines.emplace_back(line);
    input.remove_prefix(lf == std::string_view::npos ? input.size() : lf + 1);
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  Pieces source(input, data[0]);
  tondrel::LineReader reader(source, 64);
  std::vector<std::string> lines;
  while (auto line = reader.next()) {
    lines.emplace_back(line->text);
    if (data[0] & 1) reader.release();
  }
  if (lines != expected(input)) {
    std::fprintf(stderr, "lines differ from the input split at its line feeds\n");
    std::abort();
  }
  return 0;
}
