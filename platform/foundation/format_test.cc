#include "platform/foundation/format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "platform/foundation/error.h"

namespace pnx {
namespace {

TEST(FormatTest, NumbersHonourFlagsWidthPrecisionAndLengthAndConvertBetweenKinds) {
  EXPECT_EQ(format("%05d|%-4d|%+i|%.3d|% d", 42, 7, 5, 7, 3), "00042|7   |+5|007| 3");
  EXPECT_EQ(format("%x %X %#x %o %#o %u", 255, 255, 255, 8, 8, 3u), "ff FF 0xff 10 010 3");
  EXPECT_EQ(format("%ld %lu %lld %llu %zu %qd %jd", -5L, 5UL, -6LL, 7ULL, std::size_t{8}, 9, 10),
            "-5 5 -6 7 8 9 10");
  EXPECT_EQ(format("%02lx%02lx", 0x0aL, 0xbcL), "0abc");
  EXPECT_EQ(format("%llu", std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(format("%ld", std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  // Without a length modifier the value is an int, as in C; h and hh narrow further.
  EXPECT_EQ(format("%x %lx", -1, -1L), "ffffffff ffffffffffffffff");
  EXPECT_EQ(format("%hhx %hx %hhd", 0x1ff, 0x1ffff, 255), "ff ffff -1");

  EXPECT_EQ(format("%f|%.1f|%5.2f|%e|%g|%G", 1.5, 2.25, 3.14159, 1234.5, 0.0001, 1e20),
            "1.500000|2.2| 3.14|1.234500e+03|0.0001|1E+20");
  EXPECT_EQ(format("%.2f %.1f", 3, Value(2)), "3.00 2.0");
  EXPECT_EQ(format("%ld %d %d", 3.9, -2.5, Value(7.8)), "3 -2 7");
  // Out-of-range reals saturate rather than invoking undefined conversions.
  EXPECT_EQ(format("%ld", 1e300), "9223372036854775807");
  EXPECT_EQ(format("%ld", std::numeric_limits<double>::quiet_NaN()), "0");
}

TEST(FormatTest, ArgumentsOfEveryKindMissingOrExtraAndConversionsUnknownOrAnnotated) {
  EXPECT_EQ(format("%@ and %s and %s", "str", std::string("std"), std::string_view("view")),
            "str and std and view");
  EXPECT_EQ(format("%@ %@ %s", Value(), nullptr, static_cast<const char*>(nullptr)),
            "(null) (null) (null)");
  EXPECT_EQ(format("%@", std::shared_ptr<const Error>()), "(null)");
  EXPECT_EQ(format("%@", Value::array({1, 2})), Value::array({1, 2}).description());
  ErrorPtr error = Error::withDescription("D", 4, "broke");
  EXPECT_EQ(format("<%@>", error), "<" + error->description() + ">");
  EXPECT_EQ(format("%@", Date(1625065452)), "2021-06-30 15:04:12 +0000");
  EXPECT_EQ(format("%@ %@ %@", 42, Value(true), 0.5), "42 1 0.5");

  EXPECT_EQ(format("[%5@][%-5s][%.2@]", "ab", "cd", "efgh"), "[   ab][cd   ][ef]");
  // "é" is two bytes: counted as one character, and never cut in half.
  EXPECT_EQ(format("[%4@][%.2s]", "é", "héllo"), "[   é][hé]");
  EXPECT_EQ(format("[%3c][%c]", 'x', 0xe9), "[  x][é]");

  EXPECT_EQ(format("%d %u %x %f", "text", Value("7"), Value(), "x"), "0 0 0 0.000000");
  EXPECT_EQ(format("%@ %s %d %f %c|", 1), "1 (null) 0 0.000000 |");
  EXPECT_EQ(format("only %d", 1, 2, "three"), "only 1");

  EXPECT_EQ(format("%{public}@ %{private}@ %{public}d", "a", "b", 3), "a b 3");
  EXPECT_EQ(format("100%% of %d%", 5), "100% of 5%");
  // Unknown, incomplete and unsupported ('*', '%n') conversions are copied, taking no argument.
  EXPECT_EQ(format("%k %*d %n %{public %5l|%d", 9), "%k %*d %n %{public %5l|9");
  EXPECT_EQ(format("%2$@ %1$@ %@", "a", "b"), "b a a");
  EXPECT_EQ(format("%p %p", 0, 0x1f), "0x0 0x1f");
}

TEST(FormatTest, ExcerptsEscapeWhatCouldDriveATerminalAndCutLongText) {
  EXPECT_EQ(excerpt("café “ok”"), "café “ok”");
  const char controls[] = "a\0b\x1b[31m\n\t\x7f";
  EXPECT_EQ(excerpt(std::string_view(controls, sizeof controls - 1)),
            "a\\x00b\\x1b[31m\\n\\t\\x7f");
  // C1 controls and bidirectional overrides as code points, stray bytes as bytes.
  EXPECT_EQ(excerpt("\u009b2J \u202eevil \xff\xc3"), "\\u009b2J \\u202eevil \\xff\\xc3");
  // Long text is cut at a character boundary.
  EXPECT_EQ(excerpt(std::string(100000, 'x')),
            std::string(kExcerptLength, 'x') + "\u2026 (99920 more bytes)");
  EXPECT_EQ(excerpt("ab\xc3\xa9", 3), "ab\u2026 (2 more bytes)");
  EXPECT_EQ(excerpt("abc", 3), "abc");
  EXPECT_EQ(excerpt("abc", 0), "\u2026 (3 more bytes)");
}

}  // namespace
}  // namespace pnx
