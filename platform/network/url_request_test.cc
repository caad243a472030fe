#include "platform/network/url_request.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace pnx {
namespace {

TEST(URLRequestTest, HeaderNamesIgnoreCaseAndKeepTheirFirstSpelling) {
  URLRequest request(*URL::parse("https://h/x"));
  EXPECT_EQ(request.httpMethod(), "GET");
  EXPECT_EQ(request.timeoutInterval(), 60);
  EXPECT_EQ(request.cachePolicy(), URLRequestCachePolicy::UseProtocolCachePolicy);

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
}

TEST(URLRequestTest, RefusesHeadersThatWouldForgeMoreLines) {
  URLRequest request(*URL::parse("https://h/x"));
  EXPECT_THROW(request.setValue("a\r\nX-Evil: 1", "X-Ok"), std::invalid_argument);
  EXPECT_THROW(request.setValue("a", "X-Bad\n"), std::invalid_argument);
  EXPECT_THROW(request.addValue("a", "Bad:Name"), std::invalid_argument);
  EXPECT_THROW(request.setValue("a", ""), std::invalid_argument);
  EXPECT_THROW(request.setValue(std::string_view("a\0b", 3), "X-Nul"), std::invalid_argument);
  EXPECT_TRUE(request.allHTTPHeaderFields().empty());
}

}  // namespace
}  // namespace pnx
