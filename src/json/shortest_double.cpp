#include "shortest_double.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace tondrel {
namespace {

// Apple's libc++ marks std::to_chars for doubles unavailable outright below 13.3,
// so that even a run-time check cannot call it: the oldest macOS we build for
// decides, when building. TONDREL_DOUBLES_BY_PRINTF lets another system's build
// take the same path.
#if defined(TONDREL_DOUBLES_BY_PRINTF) || (defined(__APPLE__) && defined(_LIBCPP_VERSION) && \
                                           __ENVIRONMENT_MAC_OS_X_VERSION_MIN_REQUIRED__ < 130300)
#define TONDREL_SHORTEST_BY_PRINTF 1
#endif

// Reads the text of a positive value in exponent form: "d[.ddd]e[+-]XX".
ShortestDigits fromExponentText(const char* text) {
  ShortestDigits d{};
  const char* p = text;
  for (; *p != 'e'; ++p)
    if (*p != '.') d.digits[d.count++] = *p;
  d.exponent = static_cast<int>(std::strtol(p + 1, nullptr, 10));
  return d;
}

// The next decimal of as many digits above d: 1.29 -> 1.30, 9.99 -> 10.0 (as 1.00e+1).
ShortestDigits nextUp(ShortestDigits d) {
  int i = d.count - 1;
  while (i >= 0 && d.digits[i] == '9') d.digits[i--] = '0';
  if (i >= 0) {
    ++d.digits[i];
  } else {
    d.digits[0] = '1';
    ++d.exponent;
  }
  return d;
}

// The shortest digits found by printing with ever more of them until strtod reads
// the value back.
ShortestDigits digitsByPrintf(double magnitude) {
  ShortestDigits shortest{{'0'}, 1, 0, false};
  if (magnitude == 0) return shortest;
  // The exact powers of two are nearer their neighbour below than the one above,
  // so the nearest decimal of n digits may miss where the next one up still reads back.
  const bool powerOfTwo = (std::bit_cast<std::uint64_t>(magnitude) & ((std::uint64_t(1) << 52) - 1)) == 0;
  for (int precision = 1; precision <= 17; ++precision) {
    char text[48];
    std::snprintf(text, sizeof text, "%.*e", precision - 1, magnitude);
    ShortestDigits nearest = fromExponentText(text);
    if (std::strtod(text, nullptr) == magnitude) {
      shortest = nearest;
      break;
    }
    if (!powerOfTwo) continue;
    ShortestDigits up = nextUp(nearest);
    std::snprintf(text, sizeof text, "%c.%.*se%d", up.digits[0], up.count - 1, up.digits + 1, up.exponent);
    if (std::strtod(text, nullptr) == magnitude) {
      shortest = up;
      break;
    }
  }
  while (shortest.count > 1 && shortest.digits[shortest.count - 1] == '0') --shortest.count;
  return shortest;
}

}  // namespace

ShortestDigits shortestDigits(double value) {
#ifdef TONDREL_SHORTEST_BY_PRINTF
  ShortestDigits d = digitsByPrintf(std::fabs(value));
#else
  char text[32];
  *std::to_chars(text, text + sizeof text - 1, std::fabs(value), std::chars_format::scientific).ptr = 0;
  ShortestDigits d = fromExponentText(text);
#endif
  d.negative = std::signbit(value);
  return d;
}

std::string plainDecimal(double value) {
  ShortestDigits d = shortestDigits(value);
  std::string_view digits(d.digits, d.count);
  std::string out = d.negative ? "-" : "";
  int point = d.exponent + 1;  // digits before the decimal point
  if (point <= 0) {
    out.append("0.").append(std::size_t(-point), '0').append(digits);
  } else if (point >= d.count) {
    out.append(digits).append(std::size_t(point - d.count), '0');
  } else {
    out.append(digits.substr(0, point)).append(".").append(digits.substr(point));
  }
  return out;
}

std::to_chars_result shortestCharsByPrintf(char* first, char* last, double value) {
  const bool negative = std::signbit(value);
  const double magnitude = std::fabs(value);
  const ShortestDigits shortest = digitsByPrintf(magnitude);

  // Fixed notation: all digits, zeros to the point, or "0.000ddd".
  const int n = shortest.count, e = shortest.exponent;
  const int fixedLength = e >= n - 1 ? e + 1 : e >= 0 ? n + 1 : n + 1 - e;
  const int exponentDigits = std::abs(e) >= 100 ? 3 : 2;
  const int scientificLength = n + (n > 1 ? 1 : 0) + 2 + exponentDigits;
  const int length = int(negative) + std::min(fixedLength, scientificLength);
  if (last - first < length) return {last, std::errc::value_too_large};

  char* o = first;
  if (negative) *o++ = '-';
  std::string_view digits(shortest.digits, n);
  if (fixedLength <= scientificLength) {
    if (e >= n - 1) {
      // A whole number: among texts of that length, its exact digits differ least
      // from it (a value below 2^53 that reads back from a whole number is one).
      char exact[32];
      if (std::snprintf(exact, sizeof exact, "%.0f", magnitude) == e + 1) {
        o = std::copy_n(exact, e + 1, o);
      } else {  // never seen: rounding to n digits crossed a power of ten
        o = std::copy(digits.begin(), digits.end(), o);
        o = std::fill_n(o, e - (n - 1), '0');
      }
    } else if (e >= 0) {
      o = std::copy_n(digits.begin(), e + 1, o);
      *o++ = '.';
      o = std::copy(digits.begin() + e + 1, digits.end(), o);
    } else {
      *o++ = '0';
      *o++ = '.';
      o = std::fill_n(o, -e - 1, '0');
      o = std::copy(digits.begin(), digits.end(), o);
    }
  } else {
    *o++ = digits[0];
    if (n > 1) {
      *o++ = '.';
      o = std::copy(digits.begin() + 1, digits.end(), o);
    }
    *o++ = 'e';
    *o++ = e < 0 ? '-' : '+';
    char exponent[8];
    int written = std::snprintf(exponent, sizeof exponent, "%02d", std::abs(e));
    o = std::copy_n(exponent, written, o);
  }
  return {o, std::errc()};
}

std::to_chars_result shortestChars(char* first, char* last, double value) {
#ifdef TONDREL_SHORTEST_BY_PRINTF
  return shortestCharsByPrintf(first, last, value);
#else
  return std::to_chars(first, last, value);
#endif
}

}  // namespace tondrel
