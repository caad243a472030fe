#include "platform/foundation/keyed_archive.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/foundation/plist.h"

namespace pnx {
namespace {

Value uidRef(std::int64_t index) {
  return Value::dict({{"CF$UID", index}});
}

Value classEntry(const char* name) {
  return Value::dict(
      {{"$classname", name}, {"$classes", Value::array({Value(name), Value("NSObject")})}});
}

// A binary property list in the archive layout with the given object table.
Data archiveWith(Array objects, Value root = uidRef(1), Value archiver = "NSKeyedArchiver") {
  Value archive = Value::dict({{"$archiver", archiver},
                               {"$version", 100000},
                               {"$top", Value::dict({{"root", root}})},
                               {"$objects", Value(std::move(objects))}});
  auto bytes = PropertyList::serialize(archive, PropertyList::Format::Binary);
  EXPECT_TRUE(bytes);
  return bytes.value_or(Data());
}

Value roundTrip(const Value& value) {
  ErrorPtr error;
  auto archive = KeyedArchiver::archivedDataWithRootObject(value, &error);
  EXPECT_TRUE(archive) << (error ? error->description() : "");
  return KeyedUnarchiver::unarchiveObjectWithData(archive.value_or(Data()));
}

// The name and reason of the exception unarchiving raises, or "" when it raises none.
std::string unarchiveFailure(const Data& data) {
  try {
    KeyedUnarchiver::unarchiveObjectWithData(data);
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), NSInvalidUnarchiveOperationException);
    return exception.reason();
  }
  return "";
}

TEST(KeyedArchive, ValuesRoundTripWithTheirTypesAndOtherSpellingsRead) {
  const Value nested = Value::dict({
      {"string", "héllo"},
      {"integer", -42},
      {"big", 9007199254740993LL},
      {"real", 2.5},
      {"yes", true},
      {"date", Date(1625065452.25)},
      {"epoch", Date(0)},
      {"data", Data{0, 1, 2, 255}},
      {"empty data", Data{}},
      {"null", Value()},
      {"records", Value(Set{Value::dict({{"userId", "u1"}, {"mailingId", 7}}),
                            Value::dict({{"userId", "u2"}})})},
      {"list", Value::array({Value::array({}), Value::dict({}), "x", "x", 1, "🙂 ünïcode"})},
  });
  Value decoded = roundTrip(nested);
  EXPECT_EQ(decoded, nested);
  // Equal numbers are equal whatever their kind, so check the kinds.
  EXPECT_TRUE(decoded["yes"].isBoolean());
  EXPECT_TRUE(decoded["integer"].isInteger());

  EXPECT_EQ(roundTrip("just a string"), Value("just a string"));
  EXPECT_TRUE(roundTrip(Value()).isNull());

  // The mutable classes and NSString objects the platform also writes.
  Data mutableForms = archiveWith(
      {"$null",
       Value::dict({{"$class", uidRef(2)},
                    {"NS.objects", Value::array({uidRef(3), uidRef(5), uidRef(0)})}}),
       classEntry("NSMutableArray"), Value::dict({{"$class", uidRef(4)}, {"NS.string", "text"}}),
       classEntry("NSMutableString"), Data{7, 8}});
  EXPECT_EQ(KeyedUnarchiver::unarchiveObjectWithData(mutableForms),
            Value::array({"text", Data{7, 8}, Value()}));
}

// An archive of arrays `levels` deep, each holding the next one `width` times.
Data nestedArrays(int levels, std::size_t width) {
  Array objects{"$null", classEntry("NSArray")};
  for (int i = 0; i < levels; ++i) {
    const Value next = uidRef(static_cast<std::int64_t>(objects.size()) + 1);
    objects.push_back(
        Value::dict({{"$class", uidRef(1)}, {"NS.objects", Value(Array(width, next))}}));
  }
  objects.push_back("leaf");
  return archiveWith(objects, uidRef(2));
}

TEST(KeyedArchive, MalformedArchivesRaiseTheUnarchiveException) {
  auto xml = PropertyList::serialize(Value::array({1}), PropertyList::Format::XML).value();
  const std::pair<Data, const char*> cases[] = {
      {xml, "not a dictionary"},
      {archiveWith({"$null", "x"}, uidRef(1), "NSArchiver"),
       "archiver NSArchiver is not NSKeyedArchiver"},
      {archiveWith({"x", "y"}), "does not start with $null"},
      {archiveWith({"$null", "x"}, Value("x")), "malformed object reference"},
      {archiveWith({"$null", Value::dict({{"$class", uidRef(2)}}), classEntry("NSURL")}),
       "cannot decode object of class (NSURL)"},
      {archiveWith({"$null", Value::dict({{"NS.objects", 1}})}), "an object has no $class"},
      {archiveWith({"$null", Value::array({1})}), "an entry of type NSArray is not an object"},
      {archiveWith({"$null", Value::dict({{"$class", uidRef(2)}, {"NS.objects", "x"}}),
                    classEntry("NSArray")}),
       "no NS.objects array"},
      {archiveWith({"$null",
                    Value::dict({{"$class", uidRef(2)},
                                 {"NS.keys", Value::array({uidRef(3)})},
                                 {"NS.objects", Value::array({})}}),
                    classEntry("NSDictionary"), "k"}),
       "more keys than objects"},
      // Deep chains and widely shared objects (2^60 once expanded) are refused rather than
      // exhausting the stack or memory; both checks are linear in the input.
      {nestedArrays(1000, 1), "nested deeper"},
      {nestedArrays(60, 2), "expands"},
  };
  for (const auto& [data, reason] : cases) {
    EXPECT_NE(unarchiveFailure(data).find(reason), std::string::npos) << reason;
  }
}

TEST(KeyedArchive, ValuesAnArchiveCannotHoldAreRefusedOnWriting) {
  Value nestedTooDeep = "bottom";
  for (int i = 0; i <= KeyedUnarchiver::kMaxDepth; ++i) {
    nestedTooDeep = Value::array({nestedTooDeep});
  }
  const std::pair<Value, const char*> cases[] = {
      {nestedTooDeep, "nested deeper"},
      {Value(std::string("caf\xe9")), "not UTF-8"},
      {Value(std::string("a\0b", 3)), ""},
      {Value::array({Value(ObjectPtr(Error::make("domain", 1)))}), "NSError"},
  };
  for (const auto& [value, reason] : cases) {
    ErrorPtr error;
    EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(value, &error)) << reason;
    ASSERT_TRUE(error) << reason;
    EXPECT_NE(error->localizedDescription().find(reason), std::string::npos);
  }
}

}  // namespace
}  // namespace pnx
