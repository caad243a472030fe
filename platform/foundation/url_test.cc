#include "platform/foundation/url.h"

#include <gtest/gtest.h>

#include <tuple>

namespace pnx {
namespace {

URL parsed(std::string_view text) {
  auto url = URL::parse(text);
  EXPECT_TRUE(url) << text;
  return url.value_or(URL::fileURL("/"));
}

TEST(URLTest, ParsesWhatThePlatformParsesReadsComponentsAndMakesFileURLs) {
  for (const char* bad :
       {"", "http://exa mple.com", "https://h/a b", "https://h/<x>", "https://h/\x01",
        "https://h/%zz", "https://h/%4", "http://", "http:///path", "http://[bad",
        "http://h:99999/", "http://h/[x]", "https://h/a#b#c", "https://h/\xc3\xa9", "1a:b"}) {
    EXPECT_FALSE(URL::parse(bad)) << bad;
  }
  for (const char* good : {"http://h:/", "http://h:0065535/", "http://u:p;o@h/", "http://%41b/",
                           "http://[::ffff:1.2.3.4]:1/", "http://[fe80::1%25eth0]/",
                           "http://999.1.1.1/", "http://h_~-./"}) {
    EXPECT_TRUE(URL::parse(good)) << good;
  }

  URL url = parsed("HTTPS://user@Example.com:8443/a%20b/c/?q=1#frag");
  EXPECT_EQ(url.absoluteString(), "HTTPS://user@Example.com:8443/a%20b/c/?q=1#frag");
  EXPECT_EQ(url.scheme(), "https");
  EXPECT_EQ(url.host(), "Example.com");
  EXPECT_EQ(url.port(), 8443);
  EXPECT_EQ(url.path(), "/a b/c");
  EXPECT_EQ(url.query(), "q=1");

  URL ipv6 = parsed("http://[::1]:8080/x");
  EXPECT_EQ(ipv6.host(), "::1");
  EXPECT_EQ(ipv6.port(), 8080);
  EXPECT_FALSE(parsed("https://h/").port());

  // Without a scheme the text is a relative reference: all of it is path.
  URL relative = parsed("example.com/a");
  EXPECT_EQ(relative.scheme(), "");
  EXPECT_EQ(relative.host(), "");
  EXPECT_EQ(relative.path(), "example.com/a");
  EXPECT_EQ(parsed("mailto:a@b.c").scheme(), "mailto");

  URL file = URL::fileURL("/tmp/My File.png");
  EXPECT_EQ(file.absoluteString(), "file:///tmp/My%20File.png");
  EXPECT_TRUE(file.isFileURL());
  EXPECT_EQ(file.path(), "/tmp/My File.png");
  EXPECT_TRUE(file.isEqual(*URL::parse("file:///tmp/My%20File.png")));
  EXPECT_FALSE(file.isEqual(URL::fileURL("/tmp/other")));
}

TEST(URLTest, PathComponentsReadDeletedAndAppendedKeepingQueryAndFragment) {
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      {"https://h", "", "https://h/../", "https://h"},
      {"https://h/", "/", "https://h/../", "https://h/"},
      {"https://h//", "/", "https://h/../", "https://h//"},
      {"https://h/a/b/", "b", "https://h/a/", "https://h/"},
      {"https://h/a/b/c?q#f", "c", "https://h/a/b/?q#f", "https://h/?q#f"},
      {"https://h/..", "..", "https://h/../../", "https://h/"},
      {"https://h?q", "", "https://h/../?q", "https://h?q"},
      {"https://h/media/cat%20photo.jpg?size=2#top", "cat photo.jpg", "https://h/media/?size=2#top",
       "https://h/?size=2#top"},
      // An encoded slash stays encoded: a file name must not become a path.
      {"https://h/..%2F..%2Fetc", "..%2F..%2Fetc", "https://h/", "https://h/"},
      {"file:/tmp/x", "x", "file:/tmp/", "file:/"},
      {"mailto:a@b.c", "a@b.c", "mailto:./", "mailto:./"},
      {"name", "name", "./", "./"},
      {"a/b/c", "c", "a/b/", "./"},
  };
  for (const auto& [given, last, deletingLast, root] : cases) {
    SCOPED_TRACE(given);
    EXPECT_EQ(parsed(given).lastPathComponent(), last);
    EXPECT_EQ(parsed(given).deletingLastPathComponent().absoluteString(), deletingLast);
    EXPECT_EQ(parsed(given).deletingPathToRoot().absoluteString(), root);
  }

  URL delivery = parsed("https://api.example.com")
                     .appendingPathComponent("key/with?odd #chars")
                     .appendingPathComponent("delivery");
  EXPECT_EQ(delivery.absoluteString(),
            "https://api.example.com/key/with%3Fodd%20%23chars/delivery");
  EXPECT_EQ(parsed("https://h/a/?q#f").appendingPathComponent("/b").absoluteString(),
            "https://h/a/b?q#f");
  EXPECT_TRUE(URL::parse(delivery.absoluteString()));
}

}  // namespace
}  // namespace pnx
