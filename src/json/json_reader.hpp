// Reading parsed JSON: lines are parsed with simdjson's DOM parser, and what a
// request holds is read by key, an absent or ill-typed member reading as absent.
#pragma once

#include <simdjson.h>

#include <optional>
#include <string_view>

namespace tondrel {

// Members of a parsed object, read by key; an absent object reads as empty.
class Members {
 public:
  Members() = default;
  explicit Members(std::optional<simdjson::dom::element> element) {
    simdjson::dom::object object;
    if (element && element->get_object().get(object) == simdjson::SUCCESS) object_ = object;
  }
  std::optional<simdjson::dom::element> operator[](std::string_view key) const {
    simdjson::dom::element found;
    if (!object_ || (*object_)[key].get(found) != simdjson::SUCCESS) return std::nullopt;
    return found;
  }
  std::optional<std::string_view> string(std::string_view key) const {
    std::string_view text;
    auto found = (*this)[key];
    if (!found || found->get_string().get(text) != simdjson::SUCCESS) return std::nullopt;
    return text;
  }

 private:
  std::optional<simdjson::dom::object> object_;
};

}  // namespace tondrel
