// Routing decisions of pnx serve, and the media names it lets through to the file system.

#include "tools/pnx/serve/routing.h"

#include <gtest/gtest.h>

namespace pnx::serve {
namespace {

TEST(ServeRouting, EndpointsMethodsAndMediaNames) {
  Route delivery = routeRequest("POST", "/3.0/apps/ap12345678/delivery?x=1");
  EXPECT_EQ(std::tie(delivery.endpoint, delivery.methodAllowed, delivery.appKey),
            std::tuple(Endpoint::Delivery, true, "ap12345678"));
  EXPECT_EQ(routeRequest("POST", "/3.0/apps/a%20b/delivery").appKey, "a b");
  // "%2F" decodes after splitting: the key holds a slash instead of making a new segment.
  EXPECT_EQ(routeRequest("POST", "/3.0/apps/a%2Fb/delivery").appKey, "a/b");

  Route wrongMethod = routeRequest("GET", "/3.0/apps/key/delivery");
  EXPECT_EQ(std::tie(wrongMethod.endpoint, wrongMethod.methodAllowed, wrongMethod.allow),
            std::tuple(Endpoint::Delivery, false, "POST"));

  EXPECT_TRUE(routeRequest("GET", "/_pnx/reports").methodAllowed);
  EXPECT_FALSE(routeRequest("POST", "/_pnx/reports").methodAllowed);
  EXPECT_TRUE(routeRequest("POST", "/_pnx/faults").methodAllowed);
  EXPECT_FALSE(routeRequest("DELETE", "/_pnx/faults").methodAllowed);
  EXPECT_EQ(routeRequest("HEAD", "/media/a.png").endpoint, Endpoint::Media);

  for (const char* target :
       {"/", "", "*", "/3.0/apps//delivery", "/3.0/apps/key/delivery/", "/3.0/apps/key",
        "/3.0/apps/a/b/delivery", "http://host/3.0/apps/k/delivery", "/3.0/apps/k/delivery%",
        "/_pnx/reports/", "/_pnx", "/mediax/a.png"}) {
    EXPECT_EQ(routeRequest("POST", target).endpoint, Endpoint::Unknown) << target;
  }

  EXPECT_EQ(safeMediaPath("a.png"), "a.png");
  EXPECT_EQ(safeMediaPath("sub/a%20b.png"), "sub/a b.png");
  EXPECT_EQ(safeMediaPath("%252e%252e"), "%2e%2e");  // decoded once: a plain name
  for (const char* name : {"", "..", ".", "../etc/passwd", "a/../../b", "%2e%2e", "%2E%2e/x",
                           "..%2Fetc%2Fpasswd", "a%2F..%2F..%2Fb", "%2Fetc%2Fpasswd", "/etc/passwd",
                           "a//b", "a/", "a%00.png", "a%zz", "a%2"}) {
    EXPECT_EQ(safeMediaPath(name), std::nullopt) << name;
  }
  Route refused = routeRequest("GET", "/media/..%2F..%2Fetc%2Fpasswd");
  EXPECT_EQ(std::tie(refused.endpoint, refused.mediaName), std::tuple(Endpoint::Media, ""));

  const std::pair<const char*, const char*> cases[] = {
      {"a.png", "image/png"},
      {"a.JPG", "image/jpeg"},
      {"a.txt", "application/octet-stream"},
      {"png", "application/octet-stream"},
      {"d.png/file", "application/octet-stream"},
  };
  for (const auto& [name, type] : cases) EXPECT_EQ(mediaContentType(name), type) << name;
}

}  // namespace
}  // namespace pnx::serve
