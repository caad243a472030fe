#include "platform/network/curl_library.h"

#include <dlfcn.h>

#include <atomic>
#include <mutex>

namespace pnx {
namespace {

// The soname of Debian's libcurl4 (built with OpenSSL), the ABI the headers describe.
constexpr const char* kLibraryName = "libcurl.so.4";

std::atomic<bool> loaded{false};

template <class F>
bool bind(void* handle, const char* name, F& entry, std::string& missing) {
  entry = reinterpret_cast<F>(dlsym(handle, name));
  if (!entry && missing.empty()) missing = name;
  return entry != nullptr;
}

struct Loaded {
  CurlLibrary library{};
  std::string error;  // empty when the library is usable
};

Loaded open() {
  Loaded result;
  // RTLD_LOCAL keeps curl's symbols out of the global namespace: a program linking its
  // own libcurl gets the same library (the loader shares it by soname) without clashes.
  void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* reason = dlerror();
    result.error = std::string("cannot open ") + kLibraryName + ": " + (reason ? reason : "?");
    return result;
  }
  CurlLibrary& c = result.library;
  std::string missing;
  bind(handle, "curl_easy_init", c.easy_init, missing);
  bind(handle, "curl_easy_setopt", c.easy_setopt, missing);
  bind(handle, "curl_easy_getinfo", c.easy_getinfo, missing);
  bind(handle, "curl_easy_cleanup", c.easy_cleanup, missing);
  bind(handle, "curl_easy_strerror", c.easy_strerror, missing);
  bind(handle, "curl_multi_init", c.multi_init, missing);
  bind(handle, "curl_multi_setopt", c.multi_setopt, missing);
  bind(handle, "curl_multi_add_handle", c.multi_add_handle, missing);
  bind(handle, "curl_multi_remove_handle", c.multi_remove_handle, missing);
  bind(handle, "curl_multi_perform", c.multi_perform, missing);
  bind(handle, "curl_multi_poll", c.multi_poll, missing);
  bind(handle, "curl_multi_wakeup", c.multi_wakeup, missing);
  bind(handle, "curl_multi_info_read", c.multi_info_read, missing);
  bind(handle, "curl_slist_append", c.slist_append, missing);
  bind(handle, "curl_slist_free_all", c.slist_free_all, missing);
  bind(handle, "curl_url", c.url, missing);
  bind(handle, "curl_url_set", c.url_set, missing);
  bind(handle, "curl_url_cleanup", c.url_cleanup, missing);
  CURLcode (*globalInit)(long) = nullptr;
  bind(handle, "curl_global_init", globalInit, missing);
  if (!missing.empty()) {
    result.error = std::string(kLibraryName) + " lacks " + missing;
    return result;
  }
  if (globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    result.error = std::string(kLibraryName) + ": global initialisation failed";
  }
  // The handle stays open for the life of the process.
  return result;
}

}  // namespace

const CurlLibrary* CurlLibrary::get(std::string* error) {
  static const Loaded instance = [] {
    Loaded opened = open();
    if (opened.error.empty()) loaded.store(true, std::memory_order_release);
    return opened;
  }();
  if (!instance.error.empty()) {
    if (error) *error = instance.error;
    return nullptr;
  }
  return &instance.library;
}

bool CurlLibrary::isLoaded() {
  return loaded.load(std::memory_order_acquire);
}

}  // namespace pnx
