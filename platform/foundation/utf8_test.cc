#include "platform/foundation/utf8.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace pnx
