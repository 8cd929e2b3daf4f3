// The fade shapes: the names an agent may give and the curve each one draws.
#pragma once

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <string_view>

namespace tondrel::sim {

struct FadeShape {
  std::string_view name;
  double (*gain)(double x);  // x from 0 (silent end) to 1 (full level)
};

inline constexpr FadeShape kFadeShapes[] = {
    {"cosine", [](double x) { return 0.5 - 0.5 * std::cos(std::numbers::pi * x); }},
    {"linear", [](double x) { return x; }},
    {"exponential", [](double x) { return x * x; }},
    {"logarithmic", [](double x) { return std::sqrt(x); }},
};
inline constexpr const FadeShape& kDefaultFade = kFadeShapes[0];

// The shape of that name, or nullptr.
inline const FadeShape* findFadeShape(std::string_view name) {
  for (const FadeShape& shape : kFadeShapes)
    if (shape.name == name) return &shape;
  return nullptr;
}

// "\"cosine\", \"linear\", ... or \"logarithmic\"", for messages.
inline std::string fadeShapeNames() {
  std::string out;
  for (std::size_t i = 0; i < std::size(kFadeShapes); ++i)
    out += std::string(i == 0                            ? ""
                       : i + 1 == std::size(kFadeShapes) ? " or "
                                                         : ", ") +
           "\"" + std::string(kFadeShapes[i].name) + "\"";
  return out;
}

}  // namespace tondrel::sim
