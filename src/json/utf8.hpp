// UTF-8 as the bridge meets it: lines and editor answers may hold any bytes, and
// what it writes is always valid.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tondrel {

inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// Length of the valid UTF-8 sequence at s[i], or 0 with `bad` set to how many
// bytes form the maximal invalid subpart that one U+FFFD replaces.
std::size_t sequenceLength(std::string_view s, std::size_t i, std::size_t& bad);

// Appends the valid sequence at s[i] to out, or U+FFFD for the invalid subpart
// there; returns how many bytes it took.
std::size_t appendRepaired(std::string_view s, std::size_t i, std::string& out);

// The bytes as UTF-8: returned unchanged when valid, otherwise repaired into
// scratch with U+FFFD for each invalid sequence.
std::string_view decodeUtf8(std::string_view bytes, std::string& scratch);

// Appends the UTF-8 form of a code point.
void appendUtf8(std::string& out, char32_t cp);

// Strips Unicode white space (category Z, U+0009..U+000D, U+0085) from both ends
// of valid UTF-8 text.
std::string_view trimWhitespace(std::string_view text);

}  // namespace tondrel
