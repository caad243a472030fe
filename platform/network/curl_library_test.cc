#include "platform/network/curl_library.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/foundation/url.h"

namespace pnx {
namespace {

bool curlMapped() {
  std::ifstream maps("/proc/self/maps");
  return std::string(std::istreambuf_iterator<char>(maps), {}).find("libcurl") != std::string::npos;
}

// A process that makes no request never loads the HTTP stack, so URL parsing checks
// authorities itself; it must agree with the stack, or an accepted URL would fail to load.
TEST(CurlLibraryTest, OpenedOnlyOnFirstUseAndAgreesWithURLParsingOnAuthorities) {
  const bool fresh = !CurlLibrary::isLoaded();  // no other test of this process made a request
  EXPECT_TRUE(URL::parse("https://user@[::1]:8443/a?b#c"));
  EXPECT_FALSE(fresh && curlMapped());
  std::string reason;
  const CurlLibrary* curl = CurlLibrary::get(&reason);
  ASSERT_NE(curl, nullptr) << reason;
  ASSERT_TRUE(CurlLibrary::isLoaded());
  EXPECT_TRUE(curlMapped());
  auto curlAccepts = [&](const std::string& text) {
    CURLU* handle = curl->url();
    bool accepted =
        curl->url_set(handle, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
    curl->url_cleanup(handle);
    return accepted;
  };
  const std::vector<std::string> pieces = {
      "a",   "Z",   "1", "9",   "f",  ":",       ":",     ".",     "-",      "_",
      "~",   "[",   "]", "[::", "]:", "@",       "%25",   "%41",   "%00",    "%2F",
      "%7f", "%e9", "!", "$",   "&",  "(",       ")",     "*",     "+",      ",",
      ";",   "=",   "'", "::1", "ff", "1.2.3.4", "65535", "65536", "%25eth0"};
  std::mt19937 random(20261123);
  for (int i = 0; i < 40000; ++i) {
    std::string authority;
    for (int n = static_cast<int>(random() % 7); n > 0; --n) {
      authority += pieces[random() % pieces.size()];
    }
    std::string text = "http://" + authority + "/x";
    // An empty host ("http:///x", "http://u@:80/x") the stack takes; our parser refuses it.
    const std::string hostPort = authority.substr(authority.rfind('@') + 1);  // npos + 1 is 0
    const bool emptyHost = hostPort.empty() || hostPort.front() == ':';
    EXPECT_EQ(URL::parse(text).has_value(), !emptyHost && curlAccepts(text)) << text;
    if (::testing::Test::HasFailure()) break;  // one counterexample is enough
  }
}

}  // namespace
}  // namespace pnx
