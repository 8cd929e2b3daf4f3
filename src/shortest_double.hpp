// The shortest text that reads back as the same double, in the form std::to_chars
// gives it without a format: fixed or exponent notation, whichever is shorter
// (fixed on a tie), exponents with a sign and at least two digits ("1e+21").
// Apple's C++ library has that std::to_chars only from macOS 13.3 on; builds for
// older systems get the same text from printf and strtod.
#pragma once

#include <charconv>

namespace tondrel {

// std::to_chars(first, last, value), or the same by printf where the oldest macOS
// built for lacks it. Finite values only.
std::to_chars_result shortestChars(char* first, char* last, double value);

// The same text found by printing with ever more digits until strtod reads the
// value back, in the C locale; for systems without std::to_chars for doubles, and
// for tests that compare it with std::to_chars. Finite values only.
std::to_chars_result shortestCharsByPrintf(char* first, char* last, double value);

}  // namespace tondrel
