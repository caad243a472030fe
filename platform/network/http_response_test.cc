#include "platform/network/http_response.h"

#include <gtest/gtest.h>

namespace pnx {
namespace {

TEST(HTTPURLResponseTest, HeaderLookupIgnoresCaseButKeepsTheFields) {
  HTTPURLResponse response(URL::parse("https://h/x"), 429,
                           Value::dict({{"Retry-After", "120"}, {"X-Count", 3}}));
  EXPECT_EQ(response.headerValue("retry-after"), "120");
  EXPECT_EQ(response.headerValue("x-count"), "3");
  EXPECT_FALSE(response.headerValue("Retry"));
  EXPECT_EQ(response.valueForHTTPHeaderField("X-COUNT"), Value(3));
  EXPECT_TRUE(response.valueForHTTPHeaderField("Count").isNull());
  EXPECT_TRUE(response.allHeaderFields()["retry-after"].isNull());
  EXPECT_EQ(response.description().rfind("<NSHTTPURLResponse> { URL: https://h/x } "
                                         "{ Status Code: 429, Headers {",
                                         0),
            0u);

  HTTPURLResponse bare(std::nullopt, 200);
  EXPECT_TRUE(bare.allHeaderFields().isDictionary());
  EXPECT_FALSE(bare.headerValue("Retry-After"));
}

}  // namespace
}  // namespace pnx
