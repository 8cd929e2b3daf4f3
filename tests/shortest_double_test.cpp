#include "shortest_double.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>

using namespace tondrel;

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

}  // namespace

TEST(ShortestDouble, WritesAwkwardValuesAsTheLibraryDoes) {
  struct Case {
    double value;
    const char* text;
  } cases[] = {
      {0.0, "0"},
      {-0.0, "-0"},
      {1.0, "1"},
      {-2.5, "-2.5"},
      {0.1, "0.1"},
      {0.3, "0.3"},
      {1.0 / 3, "0.3333333333333333"},
      {0.001, "0.001"},                    // fixed and exponent as long: fixed
      {0.0001, "1e-04"},                   // exponent shorter
      {1e-7, "1e-07"},                     // exponents have two digits at least
      {1.5e-7, "1.5e-07"},
      {10000.0, "10000"},                  // a tie again: fixed
      {100000.0, "1e+05"},
      {123456.0, "123456"},
      {1e21, "1e+21"},
      {1e23, "1e+23"},                     // the double nearest 1e23 is below it
      {123456789012345680000.0, "123456789012345683968"},  // fixed: exact digits, no longer
      {0x1p60, "1152921504606846976"},
      {9.999999999999999e20, "999999999999999868928"},
      {5e20, "5e+20"},
      {0x1p53 + 2, "9007199254740994"},
      {5e-324, "5e-324"},                  // the smallest subnormal
      {DBL_MIN, "2.2250738585072014e-308"},
      {-DBL_MAX, "-1.7976931348623157e+308"},
      {0x1p-1022 * 3, "6.675221575521604e-308"},
      {9.5, "9.5"},
      {0.5e-100, "5e-101"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(byLibrary(c.value), c.text);
    EXPECT_EQ(byPrintf(c.value), c.text);
  }
}

// Powers of two sit nearer their neighbour below than the one above: the nearest
// decimal of some length may not read back where a farther one above does.
TEST(ShortestDouble, WritesEveryPowerOfTwoAsTheLibraryDoes) {
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    double value = std::ldexp(1.0, exponent);
    ASSERT_EQ(byPrintf(value), byLibrary(value)) << "2^" << exponent;
    ASSERT_EQ(byPrintf(-value), byLibrary(-value)) << "-2^" << exponent;
  }
}

TEST(ShortestDouble, WritesRandomValuesAsTheLibraryDoes) {
  std::mt19937_64 rng(20261123);
  for (int n = 0; n < 20000; ++n) {
    double value = std::bit_cast<double>(rng());
    // Half of them short decimals, such as an editor's times and gains.
    if (n % 2) value = double(rng() % 10000000) / std::pow(10.0, double(rng() % 12));
    if (!std::isfinite(value)) continue;
    ASSERT_EQ(byPrintf(value), byLibrary(value)) << std::bit_cast<std::uint64_t>(value);
  }
}

TEST(ShortestDouble, RefusesABufferTooSmall) {
  char buffer[5];
  auto result = shortestCharsByPrintf(buffer, buffer + sizeof buffer, 0.0625);  // "0.0625": six characters
  EXPECT_EQ(result.ec, std::errc::value_too_large);
  EXPECT_EQ(result.ptr, buffer + sizeof buffer);
}
