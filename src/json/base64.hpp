// Standard base64 (A-Z a-z 0-9 + /, padded with =), for the window snapshot, which
// reaches the agent as the data of an image item.
#pragma once

#include <cstddef>

namespace tondrel {

// Encodes the first n - n % 3 bytes, 4 characters for each 3; returns how many
// bytes it took.
std::size_t encodeBase64Groups(const unsigned char* src, std::size_t n, char* dst);

// The last 4 characters of an encoding whose final 1 or 2 bytes are given, padded.
void encodeBase64Tail(const unsigned char* src, std::size_t n, char* dst);

}  // namespace tondrel
