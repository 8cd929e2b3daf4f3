// The printf route for doubles (macOS before 13.3) must write what std::to_chars
// writes, character for character.
#include "shortest_double.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>

namespace tondrel {
namespace {

std::string byPrintf(double value) {
  char buffer[32];
  auto [end, error] = shortestCharsByPrintf(buffer, buffer + sizeof buffer, value);
  return error == std::errc() ? std::string(buffer, end) : "(too large)";
}

std::string byLibrary(double value) {
  char buffer[32];
  return std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

TEST(ShortestDouble, WritesWhatTheLibraryWrites) {
  std::vector<double> values = {0.0,
                                -0.0,
                                0.1,
                                1.0 / 3,
                                0.001,
                                0.0001,
                                1e-7,
                                1.5e-7,
                                10000.0,
                                100000.0,
                                1e21,
                                1e23,
                                5e20,
                                5e-324,
                                DBL_MIN,
                                -DBL_MAX,
                                9.5,
                                0x1p53 + 2,
                                123456789012345680000.0,
                                9.999999999999999e20};
  // Powers of two sit nearer their neighbour below than the one above: the
  // nearest decimal of some length may not read back where a farther one does.
  for (int exponent = -1074; exponent <= 1023; ++exponent) values.push_back(-std::ldexp(1.0, exponent));
  std::mt19937_64 rng(20261123);
  for (int n = 0; n < 20000; ++n) {
    double value = std::bit_cast<double>(rng());
    if (n % 2) value = double(rng() % 10000000) / std::pow(10.0, double(rng() % 12));  // short decimals
    if (std::isfinite(value)) values.push_back(value);
  }
  for (double value : values)
    ASSERT_EQ(byPrintf(value), byLibrary(value)) << std::bit_cast<std::uint64_t>(value);

  char small[5];
  EXPECT_EQ(shortestCharsByPrintf(small, small + sizeof small, 0.0625).ec, std::errc::value_too_large);
}

}  // namespace
}  // namespace tondrel
