#include "parsed_urls.hpp"

#include <new>

namespace tondrel {
namespace {

// Short paths only are kept, and so many, so that the cache stays small in bytes.
constexpr std::size_t kCachedPaths = 64, kCachedPathLength = 256;

}  // namespace

CURLU* ParsedURLs::find(std::string_view path) {
  if (auto found = urls_.find(path); found != urls_.end()) return found->second;
  CURLU* url = curl_.url();
  if (!url) throw std::bad_alloc();
  std::string text = base_ + std::string(path);
  if (CURLUcode code = curl_.url_set(url, CURLUPART_URL, text.c_str(), 0); code != CURLUE_OK) {
    curl_.url_cleanup(url);
    if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
    return nullptr;
  }
  if (path.size() > kCachedPathLength) {
    curl_.url_cleanup(uncached_);  // the one long address, kept until the next call
    return uncached_ = url;
  }
  if (urls_.size() >= kCachedPaths) clear();
  try {
    urls_.emplace(path, url);
  } catch (...) {
    curl_.url_cleanup(url);
    throw;
  }
  return url;
}

void ParsedURLs::clear() {
  for (auto& [path, url] : urls_) curl_.url_cleanup(url);
  urls_.clear();
  curl_.url_cleanup(uncached_);
  uncached_ = nullptr;
}

}  // namespace tondrel
