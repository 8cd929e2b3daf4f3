// The editor's addresses, each parsed once by libcurl and kept for the next call
// to the same path; parsing also tells early whether base + path is a URL at all.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "libcurl.hpp"

namespace tondrel {

class ParsedURLs {
 public:
  ParsedURLs(const Libcurl& curl, std::string base) : curl_(curl), base_(std::move(base)) {}
  ParsedURLs(const ParsedURLs&) = delete;
  ParsedURLs& operator=(const ParsedURLs&) = delete;
  ~ParsedURLs() { clear(); }

  // base + path parsed, or nullptr for text that is no URL; throws std::bad_alloc.
  // Kept until a later call at the least.
  CURLU* find(std::string_view path);

 private:
  void clear();

  struct PathHash : std::hash<std::string_view> {
    using is_transparent = void;
  };

  const Libcurl& curl_;
  const std::string base_;
  std::unordered_map<std::string, CURLU*, PathHash, std::equal_to<>> urls_;
  CURLU* uncached_ = nullptr;
};

}  // namespace tondrel
