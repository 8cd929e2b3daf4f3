// Lines from a byte stream fed from memory, in pieces of every size: the same
// lines wherever the pieces split, each with its padding readable after it.
#include "line_reader.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace tondrel {
namespace {

constexpr std::size_t kPadding = 64;

// Hands out the input a piece of at most `piece` bytes at a time.
class PiecesOf final : public ByteSource {
 public:
  PiecesOf(std::string input, std::size_t piece) : input_(std::move(input)), piece_(piece) {}
  std::size_t read(char* buffer, std::size_t size) override {
    std::size_t n = std::min({size, piece_, input_.size() - at_});
    std::memcpy(buffer, input_.data() + at_, n);
    at_ += n;
    return n;
  }

 private:
  std::string input_;
  std::size_t piece_, at_ = 0;
};

std::vector<std::string> linesOf(const std::string& input, std::size_t piece) {
  PiecesOf source(input, piece);
  LineReader reader(source, kPadding);
  std::vector<std::string> lines;
  while (auto line = reader.next()) {
    EXPECT_FALSE(line->tooLarge);
    volatile char last =
        line->text.data()[line->text.size() + kPadding - 1];  // readable: a sanitizer says if not
    (void)last;
    lines.emplace_back(line->text);
    reader.release();
  }
  return lines;
}

TEST(LineReader, SplitsLinesWhereverThePiecesEnd) {
  const std::string longLine(300000, 'x');
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"", {}},
      {"\n", {""}},
      {"a\nb\n", {"a", "b"}},
      {"a\r\nb\r\n\r\n", {"a", "b", ""}},
      {"last line without a line feed", {"last line without a line feed"}},
      {"a\rb\n\rc\r", {"a\rb", "\rc\r"}},
      {std::string("nul\0inside\n", 11), {std::string("nul\0inside", 10)}},
      {"\n\n\nx", {"", "", "", "x"}},
      {longLine + "\r\n" + longLine, {longLine, longLine}},
  };
  for (const auto& [input, lines] : cases)
    for (std::size_t piece : {1, 2, 3, 7, 4096, 1 << 20}) {
      if (input.size() > 100000 && piece < 4096) continue;  // a byte at a time proves nothing more there
      EXPECT_EQ(linesOf(input, piece), lines) << input.substr(0, 40) << " in pieces of " << piece;
    }
}

}  // namespace
}  // namespace tondrel
