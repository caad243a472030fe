// The exact bytes the keyed archiver writes. Other tools read the keychain database, so
// the layout must not drift: these archives were written by the archiver before its writer
// was streamlined, and every later writer must reproduce them byte for byte.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "platform/foundation/keyed_archive.h"
#include "platform/foundation/plist.h"

namespace pnx {
namespace {

std::string hexOf(const Data& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::uint8_t byte : bytes) {
    out += kDigits[byte >> 4];
    out += kDigits[byte & 0xf];
  }
  return out;
}

// FNV-1a: enough to pin the bytes of archives too long to spell out.
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

TEST(KeyedArchiveBytes, SmallArchivesKeepTheirExactBytes) {
  EXPECT_EQ(hexOf(archived(Value())),
            "62706c6973743030592461726368697665725f100f4e534b65796564417263686976657258246f62"
            "6a6563747355246e756c6ca1035424746f7054726f6f748000d10607582476657273696f6e120001"
            "86a0d4000205090104080a0812242d33353a3f41444d520000000000000101000000000000000c00"
            "0000000000000b000000000000005b");
  EXPECT_EQ(hexOf(archived(Value("just a string"))),
            "62706c6973743030592461726368697665725f100f4e534b65796564417263686976657258246f62"
            "6a6563747355246e756c6c5d6a757374206120737472696e67a203045424746f7054726f6f748001"
            "d10708582476657273696f6e12000186a0d40002060a0105090b0812242d334144494e50535c6100"
            "00000000000101000000000000000d000000000000000c000000000000006a");
  EXPECT_EQ(hexOf(archived(everyKind())),
            "62706c6973743030592461726368697665725f100f4e534b65796564417263686976657258246f62"
            "6a6563747355246e756c6c5624636c6173738025574e532e6b657973800280038004800580068007"
            "a60708090a0b0c5a4e532e6f626a656374738009800a801e802d80108032a60f1011121314d30406"
            "0e050d15556279746573546c697374566e65737465645373657456757365724964547768656e5824"
            "636c6173736573564e5344617461584e534f626a656374a21e1f5a24636c6173736e616d65d21d21"
            "201e8008574e532e6461746144000102ffd204242325801d800b800c800d800e800f801180128013"
            "80148015801680188019801a801b801caf101128292a2b2c132d2e2f3031323334353637d2040e27"
            "38100113fffffffffffffffe23400c000000000000090853752d3154726f6f745424746f70574e53"
            "4172726179564e534e756c6ca2431fd21d2144438017d1044667006800e9006c006c006f00202713"
            "62d83dde00130000010000000000138000000000000000a2421fd21d214c42801f802080218022a4"
            "4e4f50518023802480268028a453545556d304060e0552575b656d7074792061727261795a656d70"
            "7479206469637459656d707479207365745b6e756d626572206b657973a0d2040e275da0a0d30406"
            "0e055f605c4e5344696374696f6e617279a2621fd21d2163628027a0d2040e6566554e53536574a2"
            "681fd21d2169688029802aa26b6c802b802ca26e6fd304060e056d701007513755736576656e2340"
            "1c000000000000802e802f8030a3767778d2040e6579100351615162564e5344617465a27e1fd21d"
            "217f7e8031574e532e74696d65234025000000000000d204828183af103303161718191a1b1c2226"
            "393a3b3c3d3e3f031f40410e42454748494a4b4d58595a5b5c5e6164676a71727374757a7b7c7d80"
            "848001d14086582476657273696f6e12000186a0d40002418801858789000800120024002d003300"
            "3a003c004400460048004a004c004e005000570062006400660068006a006c006e0075007c008200"
            "87008e00920099009e00a700ae00b700ba00c500ca00cc00d400d900de00e000e200e400e600e800"
            "ea00ec00ee00f000f200f400f600f800fa00fc00fe010001140119011b0124012d012e012f013301"
            "38013d0145014c014f0154015601590168016d0176017f018201870189018b018d018f0194019601"
            "98019a019c01a101a801b401bf01c901d501d601db01dc01dd01e401f101f401f901fb01fc020102"
            "07020a020f0211021302160218021a021d022402260228022e02370239023b023d02410246024802"
            "4a024c02530256025b025d0265026e027302a902ab02ae02b702bc00000000000002010000000000"
            "00008b000000000000008a00000000000002c5");
}

TEST(KeyedArchiveBytes, LongQueuesKeepTheirBytes) {
  // Past 255 and 65,535 objects the references widen to two and four bytes.
  struct Pinned {
    int records;
    std::size_t size;
    std::uint64_t fingerprint;
  };
  for (const Pinned& pinned :
       {Pinned{40, 3368, 11397193555202874115ull}, Pinned{300, 23464, 17979313370670044146ull},
        Pinned{9000, 1178216, 9058269519957846037ull}}) {
    Data bytes = archived(queueOf(pinned.records));
    EXPECT_EQ(bytes.size(), pinned.size) << pinned.records;
    EXPECT_EQ(fingerprint(bytes), pinned.fingerprint) << pinned.records;
  }
}

// Strings spelled like the archive's own keys, class names and markers, stored before the
// layout uses them, share one object with them.
TEST(KeyedArchiveBytes, StringsSpelledLikeTheLayoutKeepTheirBytes) {
  Array spelled;
  for (const char* text : {"NSDictionary", "$version", "$classname", "NS.keys", "$archiver",
                           "NSKeyedArchiver", "$objects", "$classes", "$class", "NS.time",
                           "NS.data", "NSNull", "NSDate", "NSData", "NSSet", "$null"}) {
    spelled.push_back(Value(text));
  }
  spelled.push_back(
      Value::dict({{"$class", "NSArray"}, {"NS.objects", Value::array({"root", "$top"})}}));
  spelled.push_back(Value(Date::fromReferenceDate(1)));
  EXPECT_EQ(hexOf(archived(Value(spelled))),
            "62706c6973743030592461726368697665725f100f4e534b65796564417263686976657258246f62"
            "6a6563747355246e756c6c5624636c61737380185a4e532e6f626a65637473800280038004800580"
            "06800780088009800a800b800c800d800e800f801080118012801baf10120708090a0b0c0d0e0f10"
            "1112131415161718d2040605195c4e5344696374696f6e617279582476657273696f6e5a24636c61"
            "73736e616d65574e532e6b6579735824636c6173736573574e532e74696d65574e532e6461746156"
            "4e534e756c6c564e5344617465564e5344617461554e5353657480198013a20f2780148015a2292a"
            "d3041e0626282b574e53417272617980168017a22e2fd20406053054726f6f745424746f70584e53"
            "4f626a656374a22d34d21f1d352da21b34d21f1d371ba22334d21f1d3923801a233ff00000000000"
            "00d204203b3caf101c031a1b1c1d1e0001021f04202122232425032c062d31323336383a3d8001d1"
            "323f12000186a0d40002331c013e4041000800120024002d0033003a003c00470049004b004d004f"
            "00510053005500570059005b005d005f00610063006500670069006b008000850092009b00a600ae"
            "00b700bf00c700ce00d500dc00e200e400e600e900eb00ed00f000f700ff010101030106010b0110"
            "0115011e012101260129012e0131013601380141014601650167016a016f00000000000002010000"
            "00000000004300000000000000420000000000000178");
}

// The property-list writer the archiver shares: references, shared strings and every kind
// a property list holds.
TEST(KeyedArchiveBytes, BinaryPropertyListsKeepTheirExactBytes) {
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
  ASSERT_TRUE(bytes);
  EXPECT_EQ(hexOf(*bytes),
            "62706c697374303055616761696e53752d3155656d707479a0d0a203045a7265666572656e636573"
            "800356434624554944130000010000000000d10809a307070a577363616c617273100113ffffffff"
            "fffffffe23400c000000000000090867006800e9006c006c006f0020271362d83dde001300000100"
            "0000000013800000000000000033402500000000000044000102ffac0d0e0f101101121314151617"
            "53736574100351615162a31a1b1cd50002060c1901050b181d080e1218191a1d282a313a3d41494b"
            "545d5e5f6e737c858e93a0a4a6a8aaae0000000000000101000000000000001f000000000000001e"
            "00000000000000b9");
}

}  // namespace
}  // namespace pnx
