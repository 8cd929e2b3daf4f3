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

// d1.d2...dn x 10^exponent, digits as characters.
struct Decimal {
  char digits[24];
  int count;
  int exponent;
};

// Reads printf's "%.*e" text of a positive value: "d[.ddd]e[+-]XX".
Decimal fromExponentText(const char* text) {
  Decimal d{};
  const char* p = text;
  for (; *p != 'e'; ++p)
    if (*p != '.') d.digits[d.count++] = *p;
  d.exponent = static_cast<int>(std::strtol(p + 1, nullptr, 10));
  return d;
}

// The next decimal of as many digits above d: 1.29 -> 1.30, 9.99 -> 10.0 (as 1.00e+1).
Decimal nextUp(Decimal d) {
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

}  // namespace

std::to_chars_result shortestCharsByPrintf(char* first, char* last, double value) {
  const bool negative = std::signbit(value);
  const double magnitude = std::fabs(value);
  Decimal shortest{{'0'}, 1, 0};
  if (magnitude != 0) {
    // The exact powers of two are nearer their neighbour below than the one above,
    // so the nearest decimal of n digits may miss where the next one up still reads back.
    const bool powerOfTwo = (std::bit_cast<std::uint64_t>(magnitude) & ((std::uint64_t(1) << 52) - 1)) == 0;
    for (int precision = 1; precision <= 17; ++precision) {
      char text[48];
      std::snprintf(text, sizeof text, "%.*e", precision - 1, magnitude);
      Decimal nearest = fromExponentText(text);
      if (std::strtod(text, nullptr) == magnitude) {
        shortest = nearest;
        break;
      }
      if (!powerOfTwo) continue;
      Decimal up = nextUp(nearest);
      std::snprintf(text, sizeof text, "%c.%.*se%d", up.digits[0], up.count - 1, up.digits + 1, up.exponent);
      if (std::strtod(text, nullptr) == magnitude) {
        shortest = up;
        break;
      }
    }
    while (shortest.count > 1 && shortest.digits[shortest.count - 1] == '0') --shortest.count;
  }

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
  // Apple's libc++ marks it unavailable outright below 13.3, so that even a run-time
  // check cannot call it: the oldest macOS we build for decides, when building.
  // TONDREL_DOUBLES_BY_PRINTF lets another system's build take the same path.
#if defined(TONDREL_DOUBLES_BY_PRINTF) || (defined(__APPLE__) && defined(_LIBCPP_VERSION) && \
                                           __ENVIRONMENT_MAC_OS_X_VERSION_MIN_REQUIRED__ < 130300)
  return shortestCharsByPrintf(first, last, value);
#else
  return std::to_chars(first, last, value);
#endif
}

}  // namespace tondrel
