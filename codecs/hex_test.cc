#include "codecs/hex.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using std::string_literals::operator""s;

TEST(HexTest, EncodesLowerCaseAndDecodesPairsOneByOneCountingUTF16CodeUnits) {
  EXPECT_EQ(hexadecimalString({0x00, 0x7F, 0x80, 0xAB, 0xFF}), "007f80abff");
  EXPECT_EQ(stringFromHex("48656c6C6F"), "Hello");
  EXPECT_EQ(stringFromHex("48656"), "He");
  EXPECT_EQ(stringFromHex("4"), "");

  // Each pair goes to strtol on its own: what strtol makes of it is its business, but a pair
  // without digits is a zero byte, not a refusal, and no prefix spans two pairs.
  EXPECT_EQ(stringFromHex("zz"), "\0"s);
  EXPECT_EQ(stringFromHex("0x41"), "\0A"s);  // "0x" alone has no digits after the prefix
  // U+0141 reduces to 0x41 'A': "c3" then the pair "A1" gives 0xC3 0xA1, "á".
  EXPECT_EQ(stringFromHex("c3\u01411"), "á");
  // A character beyond U+FFFF is two code units (a surrogate pair), so one whole pair.
  EXPECT_EQ(stringFromHex("😀41"), "\0A"s);
  // Bytes that are not UTF-8 count one unit each and never crash the reader.
  EXPECT_EQ(stringFromHex("\377141"), "\0A"s);  // 0xFF, then "1", then "41"
}

}  // namespace
