#include "platform/foundation/value.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <tuple>

#include "platform/foundation/error.h"

namespace pnx {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();

// An object equal by domain, code and userInfo. Its hash leaves out the userInfo, so errors
// that differ only in their description hash alike.
Value error(int code, const char* description = "x", const char* domain = "D") {
  return Value(ObjectPtr(Error::withDescription(domain, code, description)));
}

// An object equal by name and reason alone: its userInfo does not count.
Value exception(const char* reason, Value userInfo = Value()) {
  return Value(ObjectPtr(std::make_shared<Exception>("N", reason, std::move(userInfo))));
}

TEST(ValueTest, EqualNumbersOfAnyKindAreOneValueAndNumericReadingsSaturate) {
  const std::pair<Value, Value> equal[] = {
      {true, 1},
      {false, 0.0},
      {5, 5.0},
      {0, -0.0},
      {kNaN, -kNaN},
      {kInt64Min, -9223372036854775808.0},
      {Value::array({1, 2.0}), Value::array({1.0, 2})},
      {Value::dict({{"n", 3}, {"ok", true}}), Value::dict({{"n", 3.0}, {"ok", 1}})},
      {Value(Set{Value(2)}), Value(Set{Value(2.0)})},
  };
  for (const auto& [a, b] : equal) {
    EXPECT_EQ(a, b) << a.description();
    EXPECT_EQ(a.hash(), b.hash()) << a.description();
  }
  EXPECT_EQ(Value(Set{Value(1), Value(1.0), Value(true), Value(2)}).size(), 2u);

  EXPECT_TRUE(Value(std::numeric_limits<std::uint64_t>::max()).isReal());
  EXPECT_TRUE(Value(static_cast<unsigned long long>(kInt64Max)).isInteger());
  EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).isNull());
  EXPECT_TRUE(Value(ObjectPtr()).isNull());

  EXPECT_EQ(Value(-2.9).integerValue(), -2);
  EXPECT_EQ(Value(1e300).integerValue(), kInt64Max);
  EXPECT_EQ(Value(-kInf).integerValue(), kInt64Min);
  EXPECT_EQ(Value(kNaN).integerValue(), 0);
  EXPECT_EQ(Value("12").integerValue(), 0);
  EXPECT_EQ(Value(true).doubleValue(), 1.0);
  EXPECT_FALSE(Value("yes").boolValue());
  EXPECT_TRUE(Value(0.5).boolValue());

  Value repeated = Value::dict({{"a", 1}, {"a", 2}});
  EXPECT_EQ(repeated["a"], Value(2));
  EXPECT_TRUE(repeated["missing"].isNull());
  EXPECT_TRUE(Value(3)["a"].isNull());
  EXPECT_EQ(Value("h\xc3\xa9").size(), 3u);
}

TEST(ValueTest, OrderIsTotalAgreesWithHashAndComparesObjectsByValue) {
  // Families in order, each by value. Numbers compare exactly (2^53 + 1 above its double,
  // 2^63 above INT64_MAX, NaN after every number); strings bytewise.
  const std::vector<Value> families[] = {
      {Value()},
      {Value(-kInf), Value(-2), Value(-1.5), Value(-1), Value(false), Value(0.5), Value(true),
       Value(1.5), Value(9007199254740992.0), Value(std::int64_t{9007199254740993}),
       Value(kInt64Max), Value(9223372036854775808.0), Value(kInf), Value(kNaN)},
      {Value(""), Value("Z"), Value("a"), Value("\xc3\xa9")},
      {Value(Date(-1)), Value(Date(0))},
      {Value(Data{}), Value(Data{0}), Value(Data{1})},
      {Value::array({}), Value::array({1}), Value::array({1, 0}), Value::array({1.0, "x"}),
       Value::array({2})},
      {Value::dict({}), Value::dict({{"a", 1}}), Value::dict({{"a", 2}}), Value::dict({{"b", 0}})},
      {Value(Set{}), Value(Set{Value(1)})},
      {error(2)},
  };
  std::vector<Value> values;
  for (const auto& family : families) values.insert(values.end(), family.begin(), family.end());
  for (std::size_t i = 0; i + 1 < values.size(); ++i) {
    EXPECT_LT(values[i], values[i + 1]) << values[i].description();
  }
  values.insert(values.end(), {error(1), error(1, "y"), error(1, "x", "E"), error(2), error(3),
                               Value(1), Value(0.0), exception("R", Value::dict({{"k", 1}})),
                               exception("R"), exception("other")});
  for (const Value& a : values) {
    for (const Value& b : values) {
      EXPECT_EQ(a.compare(b), -b.compare(a)) << a.description() << " vs " << b.description();
      if (a == b) {
        EXPECT_EQ(a.hash(), b.hash()) << a.description();
      }
      for (const Value& c : values) {
        if (a < b && b < c) {
          EXPECT_LT(a, c);
        }
      }
    }
  }
  EXPECT_EQ(Value(Set{error(1), error(1), error(1, "y")}).size(), 2u);
  EXPECT_EQ(exception("R", Value::dict({{"k", 1}})), exception("R"));
  EXPECT_EQ(
      Value(Set{error(1), error(1, "x", "E"), error(2), exception("R"), exception("other")}).size(),
      5u);
  // Objects are described as they describe themselves, unquoted.
  EXPECT_EQ(Value::array({error(4)}).description(), "(\n    " + error(4).description() + "\n)");
}

TEST(ValueTest, DescriptionsAndClassNames) {
  Data counting(100);
  for (std::size_t i = 0; i < counting.size(); ++i) counting[i] = static_cast<std::uint8_t>(i);
  const std::tuple<Value, std::string, const char*> cases[] = {
      {Value(), "(null)", "NSNull"},
      {Value(false), "0", "NSNumber"},
      {Value(-42), "-42", "NSNumber"},
      {Value(5.0), "5", "NSNumber"},
      {Value(-kNaN), "nan", "NSNumber"},
      {Value(-kInf), "-inf", "NSNumber"},
      {Value("two words"), "two words", "NSString"},
      {Value(Data{0x00, 0xab, 0xff}), "{length = 3, bytes = 0x00abff}", "NSData"},
      {Value(counting),
       "{length = 100, bytes = 0x000102030405060708090a0b0c0d0e0f ... 5c5d5e5f60616263}", "NSData"},
      {Value(Data(24, 0x11)), "{length = 24, bytes = 0x" + std::string(48, '1') + "}", "NSData"},
      {Value::array({}), "(\n)", "NSArray"},
      {Value(Set{}), "{(\n)}", "NSSet"},
      {Value::dict({{"k-1.$_:/", "v"}}), "{\n    k-1.$_:/ = v;\n}", "NSDictionary"},
      {Value(Date(0)), "1970-01-01 00:00:00 +0000", "NSDate"},
  };
  for (const auto& [value, description, className] : cases) {
    EXPECT_EQ(value.description(), description);
    EXPECT_EQ(value.className(), className) << description;
  }

  Value v = Value::dict({
      {"b", Value::array({1, Value(), "x y", Value::dict({{"k", "a/b:c"}})})},
      {"a", Value(Set{Value("q\"\\\n\t"), Value("")})},
  });
  EXPECT_EQ(v.description(),
            "{\n"
            "    a = {(\n"
            "        \"\",\n"
            "        \"q\\\"\\\\\\n\\t\"\n"
            "    )};\n"
            "    b = (\n"
            "        1,\n"
            "        <null>,\n"
            "        \"x y\",\n"
            "        {\n"
            "            k = a/b:c;\n"
            "        }\n"
            "    );\n"
            "}");
}

}  // namespace
}  // namespace pnx
