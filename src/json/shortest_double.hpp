// The shortest digits that read back as the same double, and the two forms the
// bridge writes them in: JSON's, in the form std::to_chars gives without a format
// (fixed or exponent notation, whichever is shorter, fixed on a tie; exponents
// with a sign and at least two digits, "1e+21"), and a query's plain decimal.
// Apple's C++ library has std::to_chars for doubles only from macOS 13.3 on;
// builds for older systems get the same text from printf and strtod.
#pragma once

#include <charconv>
#include <string>

namespace tondrel {

// d1.d2...dn x 10^exponent, digits as characters, no trailing zero but for 0 itself.
struct ShortestDigits {
  char digits[24];
  int count;
  int exponent;
  bool negative;
};

// The shortest digits of a finite value.
ShortestDigits shortestDigits(double value);

// std::to_chars(first, last, value), or the same by printf where the oldest macOS
// built for lacks it. Finite values only.
std::to_chars_result shortestChars(char* first, char* last, double value);

// The same text found by printing with ever more digits until strtod reads the
// value back, in the C locale; for systems without std::to_chars for doubles, and
// for tests that compare it with std::to_chars. Finite values only.
std::to_chars_result shortestCharsByPrintf(char* first, char* last, double value);

// The shortest digits with no exponent (whose "+" a query decoder would read as a
// space) and no ".0" on a whole number: 1e21 is "1000000000000000000000", -1.5e-07
// is "-0.00000015". Finite values only.
std::string plainDecimal(double value);

}  // namespace tondrel
