#include "platform/network/url_request.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/network/http_response.h"

namespace pnx {
namespace {

TEST(HTTPHeaderFieldsTest, NamesIgnoreCaseKeepTheirFirstSpellingAndForgeNoLines) {
  URLRequest request(*URL::parse("https://h/x"));
  request.setValue("application/json", "Content-type");
  request.setValue("text/plain", "CONTENT-TYPE");
  request.addValue("gzip", "accept-encoding");
  request.addValue("br", "Accept-Encoding");
  EXPECT_EQ(request.valueForHTTPHeaderField("content-type"), "text/plain");
  EXPECT_EQ(request.valueForHTTPHeaderField("ACCEPT-ENCODING"), "gzip,br");
  ASSERT_EQ(request.allHTTPHeaderFields().size(), 2u);
  EXPECT_EQ(request.allHTTPHeaderFields()[0].first, "Content-type");

  request.setValue("", "content-TYPE");  // an empty value removes the field
  EXPECT_FALSE(request.valueForHTTPHeaderField("Content-type"));
  EXPECT_EQ(request.allHTTPHeaderFields().size(), 1u);

  EXPECT_THROW(request.setValue("a\r\nX-Evil: 1", "X-Ok"), std::invalid_argument);
  EXPECT_THROW(request.setValue("a", "X-Bad\n"), std::invalid_argument);
  EXPECT_THROW(request.addValue("a", "Bad:Name"), std::invalid_argument);
  EXPECT_THROW(request.setValue("a", ""), std::invalid_argument);
  EXPECT_THROW(request.setValue(std::string_view("a\0b", 3), "X-Nul"), std::invalid_argument);
  EXPECT_EQ(request.allHTTPHeaderFields().size(), 1u);

  HTTPURLResponse response(URL::parse("https://h/x"), 429,
                           Value::dict({{"Retry-After", "120"}, {"X-Count", 3}}));
  EXPECT_EQ(response.headerValue("retry-after"), "120");
  EXPECT_EQ(response.headerValue("x-count"), "3");
  EXPECT_FALSE(response.headerValue("Retry"));
  EXPECT_EQ(response.valueForHTTPHeaderField("X-COUNT"), Value(3));
  EXPECT_TRUE(response.valueForHTTPHeaderField("Count").isNull());
  EXPECT_TRUE(response.allHeaderFields()["retry-after"].isNull());
  EXPECT_TRUE(response.description().starts_with(
      "<NSHTTPURLResponse> { URL: https://h/x } { Status Code: 429, Headers {"))
      << response.description();

  HTTPURLResponse bare(std::nullopt, 200);
  EXPECT_TRUE(bare.allHeaderFields().isDictionary());
  EXPECT_FALSE(bare.headerValue("Retry-After"));
}

}  // namespace
}  // namespace pnx
