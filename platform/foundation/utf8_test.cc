#include "platform/foundation/utf8.h"

#include <gtest/gtest.h>

#include <regex>

#include "platform/foundation/uuid.h"

namespace pnx {
namespace {

TEST(UTF8Test, AcceptsOnlyWellFormedSequencesCountsUTF16UnitsAndCodesOneCodePoint) {
  EXPECT_TRUE(isValidUTF8(""));
  EXPECT_TRUE(isValidUTF8("plain ascii é 世 😀 \xf4\x8f\xbf\xbf"));  // up to U+10FFFF
  // Cut short, a lone continuation, overlong, a surrogate, past U+10FFFF, a byte never used.
  for (const char* bad : {"\xc3", "\xe4\xb8", "\x80", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80",
                          "\xf4\x90\x80\x80", "\xff"}) {
    EXPECT_FALSE(isValidUTF8(bad)) << bad;
  }

  EXPECT_EQ(utf16Length("ap12345678"), 10u);
  EXPECT_EQ(utf16Length("aé世😀"), 5u);
  EXPECT_EQ(utf16FromUTF8("a😀"), u"a\U0001F600");
  // Stray bytes count one unit each, standing for their own value.
  EXPECT_EQ(utf16FromUTF8("a\xff\xc3"), u"a\u00ff\u00c3");

  const std::string_view text = "a\xc3\xa9\xf0\x9f\x98\x80\xc3";
  char32_t codePoint = 0;
  EXPECT_EQ(utf8SequenceLength(text, 1, &codePoint), 2u);
  EXPECT_EQ(codePoint, U'\u00e9');
  EXPECT_EQ(utf8SequenceLength(text, 3, &codePoint), 4u);
  EXPECT_EQ(codePoint, U'\U0001F600');
  EXPECT_EQ(utf8SequenceLength(text, 7), 0u);  // cut short at the end
  EXPECT_EQ(utf8SequenceLength(text, 8), 0u);  // past the end
  std::string out;
  for (char32_t c : {U'a', U'\u00e9', U'\u4e16', U'\U0001F600'}) appendUTF8(out, c);
  EXPECT_EQ(out, "a\xc3\xa9\xe4\xb8\x96\xf0\x9f\x98\x80");
}

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
