#include "platform/foundation/json.h"

#include <gtest/gtest.h>

#include <limits>

namespace pnx {
namespace {

// The description of the error a failed parse leaves behind (and checks its identity).
std::string parseError(std::string_view text) {
  ErrorPtr error;
  auto value = JSON::parse(text, &error);
  EXPECT_FALSE(value.has_value()) << text;
  if (!error) return "<no error>";
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(error->code(), 3840);
  return error->localizedDescription();
}

TEST(JSONTest, ParsesIntoValuesOfTheRightKindAndWritesCompactlyWhatItCanWrite) {
  ErrorPtr untouched;
  auto value = JSON::parse(
      R"({"i": -7, "big": 18446744073709551615, "r": 2.0, "b": [5.0, 0.1, 1e300], "t": true,
          "n": null, "s": "caf\u00e9 \ud83d\ude00", "q": "q\"\\\/\n\u0001\u007f", "c": {},
          "a": [1, {"k": []}], "dup": 1, "dup": 2})",
      &untouched);
  ASSERT_TRUE(value);
  EXPECT_EQ(untouched, nullptr);
  const Value& v = *value;
  // Written back compactly with sorted keys; the last of a repeated key is kept.
  auto text = JSON::serialize(v);
  ASSERT_TRUE(text);
  EXPECT_EQ(*text,
            "{\"a\":[1,{\"k\":[]}],\"b\":[5,0.1,1e+300],\"big\":18446744073709551616,\"c\":{},"
            "\"dup\":2,\"i\":-7,\"n\":null,\"q\":\"q\\\"\\\\/\\n\\u0001\x7f\",\"r\":2,\"s\":"
            "\"caf\xc3\xa9 \xf0\x9f\x98\x80\",\"t\":true}");
  EXPECT_EQ(JSON::parse(*text), v);
  // Equal numbers are equal whatever their kind, so check the kinds.
  EXPECT_TRUE(v["i"].isInteger());
  EXPECT_TRUE(v["big"].isReal() && v["r"].isReal());
  EXPECT_TRUE(v["t"].isBoolean());
  EXPECT_EQ(JSON::serialize(Value(std::numeric_limits<std::int64_t>::min())),
            "-9223372036854775808");
  EXPECT_TRUE(JSON::isValidJSONObject(v));
  EXPECT_FALSE(JSON::isValidJSONObject(Value("fragment")));

  // Fragments only when allowed; UTF-8 bytes as well as text.
  EXPECT_EQ(JSON::parse("  \"text\"", nullptr, {.allowFragments = true}), Value("text"));
  EXPECT_EQ(JSON::parse("-0.5", nullptr, {.allowFragments = true}), Value(-0.5));
  EXPECT_EQ(JSON::parse(Data{'[', '"', 0xe2, 0x82, 0xac, '"', ']'}),
            Value::array({"\xe2\x82\xac"}));

  const std::pair<Value, const char*> unwritable[] = {
      {Value::dict({{"when", Value(Date(0))}}), "Invalid type in JSON write (NSDate)"},
      {Value(Data{1}), "Invalid type in JSON write (NSData)"},
      {Value(Set{}), "Invalid type in JSON write (NSSet)"},
      {Value::array({Value(ObjectPtr(Error::make("D", 1)))}),
       "Invalid type in JSON write (NSError)"},
      {Value(std::numeric_limits<double>::quiet_NaN()), "Invalid number value (NaN) in JSON write"},
      {Value::array({std::numeric_limits<double>::infinity()}),
       "Invalid number value (infinite) in JSON write"},
      {Value(Dictionary{{Value(1), Value(2)}}), "Invalid (non-string) key in JSON dictionary"},
      {Value("bad \xc3"), "Invalid string (not UTF-8) in JSON write"},
      {Value(Dictionary{{Value("\xff"), Value(2)}}), "Invalid string (not UTF-8) in JSON write"},
  };
  for (const auto& [value, message] : unwritable) {
    ErrorPtr error;
    EXPECT_FALSE(JSON::serialize(value, &error).has_value()) << message;
    EXPECT_FALSE(JSON::isValidJSONObject(Value::array({value}))) << message;
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 3851);
    EXPECT_EQ(error->localizedDescription(), message);
  }
}

TEST(JSONTest, ErrorsSayWhatAndWhere) {
  auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const std::string tooDeep = "line 1, column 513 (byte 512): nesting deeper than 512 levels";
  const std::pair<std::string, std::string> cases[] = {
      {"{\n  \"a\": 1,\n  \"b\": 2,\n}",
       "line 4, column 1 (byte 22): unexpected '}'; expected string literal"},
      {"[1, 2", "line 1, column 6 (byte 5): unexpected end of input; expected ']'"},
      {"", "line 1, column 1 (byte 0): no JSON text"},
      {"[1] x",
       "line 1, column 5 (byte 4): invalid literal; last read: '1] x'; expected end of input"},
      {"[1e999]", "line 1, column 2 (byte 1): number overflow parsing '1e999'"},
      {"[1 true]", "line 1, column 4 (byte 3): unexpected true literal; expected ']'"},
      // The misplaced string starts after an escaped quote and an escaped backslash.
      {R"(["a\"\\" "b"])", "line 1, column 10 (byte 9): unexpected string literal; expected ']'"},
      {"  \"text\"", "line 1, column 3 (byte 2): JSON text did not start with array or object"},
      {"[\"a\xff\"]",
       "line 1, column 4 (byte 3): invalid string: ill-formed UTF-8 byte; last read: '\"a\\xff'"},
      {"[\"\\ud800\"]",
       "line 1, column 9 (byte 8): invalid string: surrogate U+D800..U+DBFF must be followed by "
       "U+DC00..U+DFFF; last read: '\"\\ud800\"'"},
      {nested(513), tooDeep},
      // Far deeper input fails the same way instead of exhausting the stack.
      {std::string(1 << 20, '['), tooDeep},
      {"{\"k\":" + nested(600) + "}",
       "line 1, column 517 (byte 516): nesting deeper than 512 levels"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(parseError(text), "JSON parse error at " + message);
  }
  EXPECT_TRUE(JSON::parse(nested(512)));

  // A megabyte of unterminated string, or of an overflowing number, is quoted as an excerpt.
  const std::string megabyte(1 << 20, '1');
  for (const std::string& text : {"[\"" + megabyte, "[" + megabyte + "e400]"}) {
    const std::string message = parseError(text);
    EXPECT_LT(message.size(), 300u) << message;
    EXPECT_NE(message.find("more bytes)"), std::string::npos) << message;
  }
}

}  // namespace
}  // namespace pnx
