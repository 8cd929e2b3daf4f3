#include "libcurl.hpp"

#include <dlfcn.h>

#include <new>
#include <string_view>
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
  bool memory = false;
  for (const char* name : kNames) {
    if ((handle = dlopen(name, RTLD_LAZY | RTLD_LOCAL))) break;
    // The loader says why in words of its own: a mapping it could not make is
    // memory, anything else (above all a file that is not there) a missing library.
    std::string_view why = dlerror();
    memory =
        memory || why.find("map ") != std::string_view::npos || why.find("memory") != std::string_view::npos;
  }
  if (!handle && memory) throw std::bad_alloc();
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
  bind(curl.easy_getinfo, "curl_easy_getinfo");
  bind(curl.easy_cleanup, "curl_easy_cleanup");
  bind(curl.slist_append, "curl_slist_append");
  bind(curl.slist_free_all, "curl_slist_free_all");
  bind(curl.url, "curl_url");
  bind(curl.url_set, "curl_url_set");
  bind(curl.url_cleanup, "curl_url_cleanup");
  bind(curl.multi_init, "curl_multi_init");
  bind(curl.multi_setopt, "curl_multi_setopt");
  bind(curl.multi_add_handle, "curl_multi_add_handle");
  bind(curl.multi_remove_handle, "curl_multi_remove_handle");
  bind(curl.multi_perform, "curl_multi_perform");
  bind(curl.multi_wait, "curl_multi_wait");
  bind(curl.multi_info_read, "curl_multi_info_read");
  bind(curl.multi_cleanup, "curl_multi_cleanup");
  if (!complete) return nullptr;
  // Nothing but plain HTTP to the loopback: no TLS library to set up.
  if (CURLcode code = curl.global_init(CURL_GLOBAL_NOTHING); code != CURLE_OK) {
    if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    return nullptr;
  }
  return &curl;
}

}  // namespace

const Libcurl* Libcurl::get() {
  static const Libcurl* loaded = nullptr;
  if (!loaded) loaded = load();
  return loaded;
}

}  // namespace tondrel
