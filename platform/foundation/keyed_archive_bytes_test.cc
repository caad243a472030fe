// The exact bytes the keyed archiver writes. Other tools read the keychain database, so
// the layout must not drift: these archives were written by the archiver before its writer
// was streamlined, and every later writer must reproduce them byte for byte. Each is pinned
// by its length and a fingerprint of its bytes.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "platform/foundation/keyed_archive.h"
#include "platform/foundation/plist.h"

namespace pnx {
namespace {

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

// Every kind of value, strings shared and repeated, strings that spell the archive's own
// keys and class names, a non-string key, empty containers and text beyond ASCII.
Value everyKind() {
  Dictionary numberKeyed;
  numberKeyed.emplace(Value(7), Value("seven"));
  numberKeyed.emplace(Value("7"), Value(7.0));
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

// Strings spelled like the archive's own keys, class names and markers, stored before the
// layout uses them, share one object with them.
Value spelledLikeTheLayout() {
  Array spelled;
  for (const char* text : {"NSDictionary", "$version", "$classname", "NS.keys", "$archiver",
                           "NSKeyedArchiver", "$objects", "$classes", "$class", "NS.time",
                           "NS.data", "NSNull", "NSDate", "NSData", "NSSet", "$null"}) {
    spelled.push_back(Value(text));
  }
  spelled.push_back(
      Value::dict({{"$class", "NSArray"}, {"NS.objects", Value::array({"root", "$top"})}}));
  spelled.push_back(Value(Date::fromReferenceDate(1)));
  return Value(std::move(spelled));
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

// The property-list writer the archiver shares: references, shared strings and every kind
// a property list holds.
Data binaryPropertyList() {
  Value list = Value::dict({
      {"scalars", Value::array({1, -2, 3.5, true, false, "u-1", "héllo ✓", "😀", 1099511627776LL,
                                INT64_MIN, Date::fromReferenceDate(10.5), Data{0, 1, 2, 255}})},
      {"set", Value(Set{Value("b"), Value("a"), Value(3)})},
      {"references", Value::array({Value::dict({{"CF$UID", 3}}), Value::dict({{"CF$UID", 3}}),
                                   Value::dict({{"CF$UID", 1ll << 40}})})},
      {"empty", Value::array({Value::array({}), Value::dict({})})},
      {"again", "u-1"},
  });
  auto bytes = PropertyList::serialize(list, PropertyList::Format::Binary);
  EXPECT_TRUE(bytes);
  return bytes.value_or(Data());
}

TEST(KeyedArchiveBytes, ArchivesAndPropertyListsKeepTheirExactBytes) {
  struct Pinned {
    const char* what;
    Data bytes;
    std::size_t size;
    std::uint64_t fingerprint;
  };
  const Pinned pinned[] = {
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
  for (const Pinned& p : pinned) {
    SCOPED_TRACE(p.what);
    EXPECT_EQ(p.bytes.size(), p.size);
    EXPECT_EQ(fingerprint(p.bytes), p.fingerprint);
  }
}

}  // namespace
}  // namespace pnx
