#include "platform/foundation/plist.h"

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <limits>

namespace pnx {
namespace {

using Format = PropertyList::Format;

Data bytesOf(std::string_view text) {
  return Data(text.begin(), text.end());
}

Data xmlPlist(std::string_view body) {
  return bytesOf("<?xml version=\"1.0\"?><plist version=\"1.0\">" + std::string(body) + "</plist>");
}

void appendBigEndian(Data& out, std::uint64_t value, int width) {
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}

// A binary property list built by hand (two-byte references), for shapes no writer makes.
Data binaryPlist(const std::vector<Data>& objects, std::uint64_t top = 0) {
  Data out = bytesOf("bplist00");
  std::vector<std::uint64_t> offsets;
  for (const Data& object : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), object.begin(), object.end());
  }
  const std::uint64_t table = out.size();
  for (std::uint64_t offset : offsets) appendBigEndian(out, offset, 4);
  out.insert(out.end(), {0, 0, 0, 0, 0, 0, 4, 2});
  appendBigEndian(out, objects.size(), 8);
  appendBigEndian(out, top, 8);
  appendBigEndian(out, table, 8);
  return out;
}

// An array object of fewer than 15 references.
Data arrayOf(std::vector<std::uint16_t> references) {
  Data out{static_cast<std::uint8_t>(0xa0 | references.size())};
  for (std::uint16_t reference : references) appendBigEndian(out, reference, 2);
  return out;
}

Data nestedBinaryArrays(std::size_t depth) {
  std::vector<Data> objects;
  for (std::size_t i = 0; i + 1 < depth; ++i)
    objects.push_back(arrayOf({static_cast<std::uint16_t>(i + 1)}));
  objects.push_back(arrayOf({}));
  return binaryPlist(objects);
}

Data nestedXMLArrays(std::size_t depth) {
  std::string open, close;
  for (std::size_t i = 0; i < depth; ++i) open += "<array>", close += "</array>";
  return xmlPlist(open + close);
}

TEST(PropertyListTest, BothFormatsRoundTripEveryKindAndRefuseWhatTheyCannotWrite) {
  Array many;  // enough objects for two-byte references and long counts
  for (int i = 0; i < 300; ++i) many.push_back(Value(i * 1000));
  const Value v = Value::dict({
      {"integers", Value::array({-5, 0, 255, 65536, Value(std::numeric_limits<std::int64_t>::min()),
                                 Value(std::numeric_limits<std::int64_t>::max())})},
      {"reals", Value::array({-2.5, 0.1})},
      {"flags", Value::array({true, false})},
      {"text", Value::array({"caf\xc3\xa9 <&> \xf0\x9f\x98\x80", std::string(300, 'x')})},
      // Every UTF-8 length at its edges, a byte-order mark and text made only of it.
      {"utf-8",
       Value::array({"\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
                     "\xef\xbb\xbf", "a\xef\xbb\xbf", "A\xc3\x90", "\xc3\x83\xc2\xa9"})},
      {"data", Value::array({Value(Data{0, 1, 0xff}), Value(Data(40, 0xab))})},
      {"nested", Value::dict({{"list", Value::array({1, Value::dict({}), Value::array({})})}})},
      {"when", Value(Date::fromReferenceDate(646758252))},
      {"many", Value(std::move(many))},
      {"uid", Value::dict({{"CF$UID", 70000}})},
      {"not uid", Value::dict({{"CF$UID", 3}, {"x", 1}})},
      {"large uid", Value::dict({{"CF$UID", Value(1ll << 40)}})},
  });
  const std::pair<Value, std::string> unwritable[] = {
      {Value::array({Value()}), "property lists cannot contain objects of type 'NSNull'"},
      {Value::dict({{"e", Value(ObjectPtr(Error::make("D", 1)))}}),
       "property lists cannot contain objects of type 'NSError'"},
      {Value(Dictionary{{Value(1), Value("x")}}), "dictionary keys must be strings"},
      {Value(std::string("nul\0inside", 10)), "string contains a NUL character"},
      // Text that is not UTF-8, as a value and as a key: never written with bytes dropped.
      {Value("A\xd0"), "string is not UTF-8"},
      {Value::array({"A\xd0"}), "string is not UTF-8"},
      {Value::dict({{"\xceS", 1}}), "string is not UTF-8"},
  };
  for (Format format : {Format::XML, Format::Binary}) {
    SCOPED_TRACE(format == Format::XML ? "XML" : "binary");
    ErrorPtr error;
    auto bytes = PropertyList::serialize(v, format, &error);
    ASSERT_TRUE(bytes) << error->description();
    Format detected = format == Format::XML ? Format::Binary : Format::XML;
    EXPECT_EQ(PropertyList::parse(*bytes, &error, &detected), v);
    EXPECT_EQ(detected, format);
    // Sets are written as arrays.
    EXPECT_EQ(PropertyList::parse(*PropertyList::serialize(Value(Set{Value(2), Value(1)}), format)),
              Value::array({1, 2}));
    for (const auto& [value, what] : unwritable) {
      ErrorPtr refusal;
      EXPECT_FALSE(PropertyList::serialize(value, format, &refusal)) << value.description();
      ASSERT_NE(refusal, nullptr);
      EXPECT_EQ(refusal->code(), 3851);
      EXPECT_EQ(refusal->localizedDescription(), "Property list invalid for format (" + what + ")");
    }
  }

  // libplist reads our binary alike, UIDs as UIDs.
  const Data bytes = *PropertyList::serialize(v, Format::Binary);
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), bytes.size(), &root);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(plist_get_node_type(plist_dict_get_item(root, "uid")), PLIST_UID);
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root, &xml, &length);
  plist_free(root);
  ASSERT_NE(xml, nullptr);
  const Data xmlBytes(xml, xml + length);
  plist_to_xml_free(xml);
  EXPECT_EQ(PropertyList::parse(xmlBytes), v);
}

TEST(PropertyListTest, DatesKeepWhatEachFormatCanHold) {
  // Binary dates are doubles: fractions and dates far beyond 32-bit seconds survive.
  Array dates;
  for (double seconds : {646758252.25, -12345.75, 3124137600.0, -1e20})
    dates.push_back(Value(Date::fromReferenceDate(seconds)));
  EXPECT_EQ(PropertyList::parse(*PropertyList::serialize(Value(dates), Format::Binary)),
            Value(dates));
  // XML dates carry whole seconds (the fraction is cut toward zero).
  auto xml = PropertyList::serialize(Value(Date::fromReferenceDate(-12345.75)), Format::XML);
  EXPECT_EQ(PropertyList::parse(*xml)->asDate()->timeIntervalSinceReferenceDate(), -12345);

  // XML dates read exactly at the edges of 32-bit seconds (refused beyond them).
  auto edges = PropertyList::parse(xmlPlist(
      "<array><date>1932-12-13T20:45:52Z</date><date>\n2069-01-19T03:14:07Z </date></array>"));
  EXPECT_EQ(edges, Value::array({Value(Date::fromReferenceDate(-2147483648.0)),
                                 Value(Date::fromReferenceDate(2147483647.0))}));
  ErrorPtr error;
  EXPECT_FALSE(PropertyList::serialize(Value(dates), Format::XML, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->localizedDescription(), "Property list invalid for format (date out of range)");
}

// One-byte strings read as Latin-1, two-byte ones as UTF-16: the Value is UTF-8 either way.
TEST(PropertyListTest, BinaryStringsReadAsUTF8AndIntegersOfEveryWidth) {
  const std::pair<Data, Value> cases[] = {
      {{0x52, 'A', 0xd0}, Value("A\xc3\x90")},
      {{0x52, 0xc3, 0xa9}, Value("\xc3\x83\xc2\xa9")},
      {{0x60}, Value("")},
      // A surrogate pair joins; an unpaired surrogate, high or low, becomes U+FFFD.
      {{0x66, 0xd8, 0x3d, 0xde, 0x00, 0xd8, 0x00, 0, 'x', 0xdc, 0x00, 0xd8, 0x00},
       Value("\xf0\x9f\x98\x80\xef\xbf\xbdx\xef\xbf\xbd\xef\xbf\xbd")},
      {{0x12, 0xff, 0xff, 0xff, 0xff}, Value(4294967295ll)},
      {{0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe}, Value(-2)},
      {{0x14, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x80, 0, 0, 0, 0, 0, 0, 0},
       Value(std::numeric_limits<std::int64_t>::min())},
      // Above INT64_MAX: a real, as the JSON reader gives.
      {{0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
       Value(18446744073709551615.0)},
      {{0x22, 0x3f, 0xc0, 0, 0}, Value(1.5)},
  };
  for (const auto& [encoded, expected] : cases) {
    auto value = PropertyList::parse(binaryPlist({arrayOf({1}), encoded}));
    ASSERT_TRUE(value) << expected.description();
    EXPECT_EQ(value->asArray()->at(0).type(), expected.type());
    EXPECT_EQ(value, Value::array({expected}));
  }
  // An empty UTF-16 string as a key.
  EXPECT_EQ(PropertyList::parse(binaryPlist({Data{0xd1, 0, 1, 0, 1}, Data{0x60}})),
            Value::dict({{"", ""}}));
}

// The process's data segment (private writable memory, malloc's heap and mappings), in bytes.
std::uint64_t dataSegmentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmData:")) return std::stoull(line.substr(7)) * 1024;
  }
  return 0;
}

// Whether `read` succeeds in a child process whose memory may grow by at most `budget` bytes.
bool succeedsWithinMemory(std::uint64_t budget, const std::function<bool()>& read) {
  const pid_t child = fork();
  if (child == 0) {
    const rlim_t limit = dataSegmentBytes() + budget;
    const rlimit bounds{limit, limit};
    setrlimit(RLIMIT_DATA, &bounds);
    _exit(read() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(PropertyListTest, DamagedAndHostileInputFailsWithinMemoryProportionalToIt) {
  // The trailer declares 16 million objects: one-byte offsets, all to one object.
  constexpr std::uint64_t kDeclared = 16u << 20;
  Data declared = bytesOf("bplist00");
  declared.push_back(0x70);  // an object of no known kind: reading must fail cleanly
  declared.insert(declared.end(), kDeclared, 8);
  declared.insert(declared.end(), {0, 0, 0, 0, 0, 0, 1, 1});
  appendBigEndian(declared, kDeclared, 8);
  appendBigEndian(declared, 0, 8);
  appendBigEndian(declared, 9, 8);
  // Each array refers twice to the next: 2^40 copies of the data at the bottom.
  std::vector<Data> doubling;
  for (std::uint16_t next = 1; next <= 40; ++next) doubling.push_back(arrayOf({next, next}));
  doubling.push_back(Data{0x4f, 0x11, 0x04, 0x00});
  doubling.back().resize(4 + 1024);
  const std::string tooDeep = "nesting deeper than 512 levels";
  const std::string outside =
      "is outside the readable range 1932-12-13T20:45:52Z to 2069-01-19T03:14:07Z";
  const std::string notOfTheForm = "is not of the form yyyy-MM-ddTHH:mm:ssZ";
  auto badDate = [](const std::string& text, const std::string& why) {
    return std::pair{xmlPlist("<date>" + text + "</date>"), "XML date \"" + text + "\" " + why};
  };
  const std::pair<Data, std::string> cases[] = {
      {{}, "no property list data"},
      {bytesOf("bplist00 but nothing else"), "damaged binary property list trailer"},
      {binaryPlist({arrayOf({5})}), "binary property list reference out of bounds"},
      {binaryPlist({arrayOf({1}), arrayOf({0})}), "binary property list refers to itself"},
      {binaryPlist({Data{0xd1, 0, 1, 0, 1}, Data{0x10, 1}}),
       "binary property list dictionary key is not a string"},
      {binaryPlist({Data{0x70}}), "binary property list object of unknown kind 0x70"},
      {binaryPlist({arrayOf({1}), Data{0x23, 0}}), "binary property list object out of bounds"},
      {binaryPlist({arrayOf({1}), Data{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}}),
       "binary property list integer beyond 64 bits"},
      {binaryPlist(doubling), "binary property list expands too far"},
      {declared, "binary property list object of unknown kind 0x70"},
      // XML text must be UTF-8 (a reference to a surrogate is not).
      {xmlPlist("<string>A\xd0</string>"), "XML text is not UTF-8"},
      {xmlPlist("<dict><key>&#xD800;</key><true/></dict>"), "XML text is not UTF-8"},
      badDate("2100-01-01T00:00:00Z", outside),
      badDate("1932-12-13T20:45:51Z", outside),
      badDate("2001-01-01", notOfTheForm),
      badDate("2001-02-30T00:00:00Z", notOfTheForm),
      {xmlPlist("<date/>"), "XML date \"\" " + notOfTheForm},
      {xmlPlist("<date>2001-01-01T00:00:00Z<!-- x -->5</date>"),
       "XML date holds more than plain text"},
      // Nesting is capped at 512 levels, far short of what would overflow the stack.
      {nestedBinaryArrays(513), tooDeep},
      {nestedXMLArrays(513), tooDeep},
      {nestedBinaryArrays(60000), tooDeep},
      {nestedXMLArrays(1000000), tooDeep},
  };
  for (const auto& [bytes, detail] : cases) {
    SCOPED_TRACE(detail);
    ErrorPtr error;
    EXPECT_FALSE(PropertyList::parse(bytes, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 3840);
    EXPECT_EQ(error->localizedDescription(),
              "The data couldn\u2019t be read because it isn\u2019t in the correct format.");
    EXPECT_EQ(error->userInfo()[NSDebugDescriptionErrorKey], Value(detail));
  }
  EXPECT_TRUE(PropertyList::parse(nestedBinaryArrays(512)));
  EXPECT_TRUE(PropertyList::parse(nestedXMLArrays(512)));
  // Tens of bytes per declared object would be a gigabyte.
  EXPECT_TRUE(succeedsWithinMemory(256u << 20, [&] { return !PropertyList::parse(declared); }));
}

}  // namespace
}  // namespace pnx
