#include "libcurl.hpp"

#include <dlfcn.h>

#include <type_traits>

namespace tondrel {
namespace {

const Libcurl* load() {
  static constexpr const char* kNames[] = {
#ifdef __APPLE__
      "libcurl.4.dylib",
      "/usr/lib/libcurl.4.dylib",
#else
      "libcurl.so.4",
      "libcurl-gnutls.so.4",
      "libcurl.so",
#endif
  };
  void* handle = nullptr;
  for (const char* name : kNames)
    if ((handle = dlopen(name, RTLD_NOW | RTLD_LOCAL))) break;
  if (!handle) return nullptr;

  static Libcurl curl;
  bool complete = true;
  auto bind = [&](auto& fn, const char* symbol) {
    fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(dlsym(handle, symbol));
    complete = complete && fn;
  };
  bind(curl.global_init, "curl_global_init");
  bind(curl.easy_init, "curl_easy_init");
  bind(curl.easy_setopt, "curl_easy_setopt");
  bind(curl.easy_perform, "curl_easy_perform");
  bind(curl.easy_getinfo, "curl_easy_getinfo");
  bind(curl.easy_cleanup, "curl_easy_cleanup");
  bind(curl.slist_append, "curl_slist_append");
  bind(curl.slist_free_all, "curl_slist_free_all");
  bind(curl.url, "curl_url");
  bind(curl.url_set, "curl_url_set");
  bind(curl.url_cleanup, "curl_url_cleanup");
  if (!complete || curl.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return nullptr;
  return &curl;
}

}  // namespace

const Libcurl* Libcurl::get() {
  static const Libcurl* loaded = load();
  return loaded;
}

}  // namespace tondrel
