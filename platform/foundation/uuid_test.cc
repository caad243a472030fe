#include "platform/foundation/uuid.h"

#include <gtest/gtest.h>

#include <regex>

namespace pnx {
namespace {

TEST(UUIDTest, RandomIsCanonicalUpperCaseVersion4AndParseAcceptsOnlyTheHyphenatedForm) {
  const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  UUID a = UUID::random();
  EXPECT_TRUE(std::regex_match(a.string(), canonical)) << a.string();
  EXPECT_NE(a, UUID::random());
  EXPECT_EQ(UUID::parse(a.string()), a);

  auto lower = UUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(lower.has_value());
  EXPECT_EQ(lower->string(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(lower->bytes()[0], 0xE6);
  for (const char* bad :
       {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5}",
        "E621E1F-8C36C-495A-93FC-0C247A3E6E5F", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5\n"}) {
    EXPECT_FALSE(UUID::parse(bad).has_value()) << bad;
  }
}

}  // namespace
}  // namespace pnx
