#include "platform/foundation/keyed_archive.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>

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

// FNV-1a: any change of a byte changes it.
std::uint64_t fingerprint(const Data& bytes) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (std::uint8_t byte : bytes) hash = (hash ^ byte) * 0x100000001b3ull;
  return hash;
}

Data archived(const Value& value) {
  auto bytes = KeyedArchiver::archivedDataWithRootObject(value);
  EXPECT_TRUE(bytes);
  return bytes.value_or(Data());
}

// Every kind, repeated strings, layout spellings, a non-string key, empties, text beyond ASCII.
Value everyKind() {
  const Dictionary numberKeyed{{Value(7), Value("seven")}, {Value("7"), Value(7.0)}};
  return Value::dict({
      {"userId", "u-1"},
      {"list", Value::array({1, -2, 3.5, true, false, "u-1", "$null", "NSObject", "root", "$top",
                             "NS.objects", "NSArray", Value(), "héllo ✓", "😀", 1099511627776LL,
                             INT64_MIN})},
      {"set", Value(Set{Value("b"), Value("a"), Value(3)})},
      {"when", Date::fromReferenceDate(10.5)},
      {"bytes", Data{0, 1, 2, 255}},
      {"nested", Value::dict({{"empty array", Value::array({})},
                              {"empty dict", Value::dict({})},
                              {"empty set", Value(Set{})},
                              {"number keys", Value(numberKeyed)}})},
  });
}

// Strings spelled like the layout's keys and class names share one object with them.
Value spelledLikeTheLayout() {
  return Value::array(
      {"NSDictionary", "$version", "$classname", "NS.keys", "$archiver", "NSKeyedArchiver",
       "$objects", "$classes", "$class", "NS.time", "NS.data", "NSNull", "NSDate", "NSData",
       "NSSet", "$null",
       Value::dict({{"$class", "NSArray"}, {"NS.objects", Value::array({"root", "$top"})}}),
       Value(Date::fromReferenceDate(1))});
}

// A delivery queue as the keychain holds it.
Value queueOf(int size) {
  Array records;
  for (int i = 0; i < size; ++i) {
    records.push_back(Value::dict({{"userId", "user"},
                                   {"channelId", "channel"},
                                   {"attribution", "queued-" + std::to_string(i)},
                                   {"mailingId", 4711}}));
  }
  return Value(std::move(records));
}

// The property-list writer the archiver shares, with every kind a property list holds.
Data binaryPropertyList() {
  Value list = Value::dict({
      {"scalars", Value::array({1, -2, 3.5, true, false, "u-1", "héllo ✓", "😀", 1099511627776LL,
                                INT64_MIN, Date::fromReferenceDate(10.5), Data{0, 1, 2, 255}})},
      {"set", Value(Set{Value("b"), Value("a"), Value(3)})},
      {"references", Value::array({uidRef(3), uidRef(3), uidRef(1ll << 40)})},
      {"empty", Value::array({Value::array({}), Value::dict({})})},
      {"again", "u-1"},
  });
  auto bytes = PropertyList::serialize(list, PropertyList::Format::Binary);
  EXPECT_TRUE(bytes);
  return bytes.value_or(Data());
}

TEST(KeyedArchive, ValuesRoundTripWithTheirTypesAndOtherSpellingsRead) {
  const Value values = Value::array({everyKind(), spelledLikeTheLayout(), -42, true,
                                     9007199254740993LL, Date(0), Data{},
                                     Value(Set{Value::dict({{"userId", "u1"}, {"mailingId", 7}}),
                                               Value::dict({{"userId", "u2"}})})});
  const Value decoded = KeyedUnarchiver::unarchiveObjectWithData(archived(values));
  ASSERT_EQ(decoded, values);
  // Equal numbers are equal whatever their kind, so check the kinds.
  EXPECT_TRUE(decoded.asArray()->at(2).isInteger());
  EXPECT_TRUE(decoded.asArray()->at(3).isBoolean());
  EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(archived(Value())).isNull());

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

TEST(KeyedArchive, MalformedArchivesRaiseTheUnarchiveExceptionAndUnarchivableValuesAreRefused) {
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
      // Deep chains and 2^60-fold sharing are refused before exhausting stack or memory.
      {nestedArrays(1000, 1), "nested deeper"},
      {nestedArrays(60, 2), "expands"},
  };
  for (const auto& [data, reason] : cases) {
    try {
      KeyedUnarchiver::unarchiveObjectWithData(data);
      ADD_FAILURE() << "no exception: " << reason;
    } catch (const Exception& exception) {
      EXPECT_EQ(exception.name(), NSInvalidUnarchiveOperationException);
      EXPECT_NE(exception.reason().find(reason), std::string::npos) << exception.reason();
    }
  }

  Value nestedTooDeep = "bottom";
  for (int i = 0; i <= KeyedUnarchiver::kMaxDepth; ++i)
    nestedTooDeep = Value::array({nestedTooDeep});
  const std::pair<Value, const char*> unarchivable[] = {
      {nestedTooDeep, "nested deeper"},
      {Value(std::string("caf\xe9")), "not UTF-8"},
      {Value(std::string("a\0b", 3)), "NUL character"},
      {Value::array({Value(ObjectPtr(Error::make("domain", 1)))}), "NSError"},
  };
  for (const auto& [value, reason] : unarchivable) {
    ErrorPtr error;
    EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(value, &error)) << reason;
    ASSERT_TRUE(error) << reason;
    EXPECT_NE(error->localizedDescription().find(reason), std::string::npos);
  }
}

// Other tools read the keychain database, so archived bytes must never drift: these were written
// before the writer was streamlined, and every later writer must reproduce them byte for byte.
TEST(KeyedArchiveBytes, ArchivesAndPropertyListsKeepTheirExactBytes) {
  const std::tuple<const char*, Data, std::size_t, std::uint64_t> pinned[] = {
      {"null", archived(Value()), 135, 17457562272131417298ull},
      {"a string", archived(Value("just a string")), 151, 9817088864834619591ull},
      {"every kind", archived(everyKind()), 1019, 637220751648238403ull},
      {"layout spellings", archived(spelledLikeTheLayout()), 542, 12581952129605258684ull},
      // Past 255 and 65,535 objects the references widen to two and four bytes.
      {"40 records", archived(queueOf(40)), 3368, 11397193555202874115ull},
      {"300 records", archived(queueOf(300)), 23464, 17979313370670044146ull},
      {"9000 records", archived(queueOf(9000)), 1178216, 9058269519957846037ull},
      {"property list", binaryPropertyList(), 248, 7229202113467843024ull},
  };
  for (const auto& [what, bytes, size, hash] : pinned) {
    SCOPED_TRACE(what);
    EXPECT_EQ(bytes.size(), size);
    EXPECT_EQ(fingerprint(bytes), hash);
  }
}

}  // namespace
}  // namespace pnx
