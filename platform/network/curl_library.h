// The HTTP stack, libcurl, opened on first use with dlopen.
//
// Most processes never make a request: linking libcurl (and the dozen libraries it pulls
// in) would cost each of them about half its start-up time. The library is therefore
// opened only when the first request starts, once per process, and its entry points are
// reached through this table. Only the URL loading of this folder uses it.
#pragma once

#ifndef CURL_DISABLE_TYPECHECK
#define CURL_DISABLE_TYPECHECK
#endif
#include <curl/curl.h>

#include <string>

namespace pnx {

struct CurlLibrary {
  CURL* (*easy_init)();
  CURLcode (*easy_setopt)(CURL*, CURLoption, ...);
  CURLcode (*easy_getinfo)(CURL*, CURLINFO, ...);
  void (*easy_cleanup)(CURL*);
  const char* (*easy_strerror)(CURLcode);
  CURLM* (*multi_init)();
  CURLMcode (*multi_setopt)(CURLM*, CURLMoption, ...);
  CURLMcode (*multi_add_handle)(CURLM*, CURL*);
  CURLMcode (*multi_remove_handle)(CURLM*, CURL*);
  CURLMcode (*multi_perform)(CURLM*, int*);
  CURLMcode (*multi_poll)(CURLM*, curl_waitfd[], unsigned int, int, int*);
  CURLMcode (*multi_wakeup)(CURLM*);
  CURLMsg* (*multi_info_read)(CURLM*, int*);
  curl_slist* (*slist_append)(curl_slist*, const char*);
  void (*slist_free_all)(curl_slist*);
  CURLU* (*url)();
  CURLUcode (*url_set)(CURLU*, CURLUPart, const char*, unsigned int);
  void (*url_cleanup)(CURLU*);

  // The library, opened and initialised on the first call (thread-safe); nullptr when it
  // cannot be opened, with the reason in *error.
  static const CurlLibrary* get(std::string* error = nullptr);
  // True once get() has opened the library in this process.
  static bool isLoaded();
};

}  // namespace pnx
