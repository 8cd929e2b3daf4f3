// libcurl, loaded on first use: linking it would pull some thirty shared
// libraries into every start, before the host has had its "initialize" answer.
#pragma once

#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>

namespace tondrel {

struct Libcurl {
  decltype(&curl_global_init) global_init;
  decltype(&curl_easy_init) easy_init;
  decltype(&curl_easy_setopt) easy_setopt;
  decltype(&curl_easy_getinfo) easy_getinfo;
  decltype(&curl_easy_cleanup) easy_cleanup;
  decltype(&curl_slist_append) slist_append;
  decltype(&curl_slist_free_all) slist_free_all;
  decltype(&curl_url) url;
  decltype(&curl_url_set) url_set;
  decltype(&curl_url_cleanup) url_cleanup;
  decltype(&curl_multi_init) multi_init;
  decltype(&curl_multi_setopt) multi_setopt;
  decltype(&curl_multi_add_handle) multi_add_handle;
  decltype(&curl_multi_remove_handle) multi_remove_handle;
  decltype(&curl_multi_perform) multi_perform;
  decltype(&curl_multi_wait) multi_wait;
  decltype(&curl_multi_info_read) multi_info_read;
  decltype(&curl_multi_cleanup) multi_cleanup;

  // The process-wide library, initialised; nullptr when it is missing (or too
  // old). Throws std::bad_alloc when loading failed for want of memory. A load that
  // failed is tried again at the next call: memory may have come back since.
  static const Libcurl* get();
};

}  // namespace tondrel
