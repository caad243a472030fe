#include "platform/foundation/keyed_archive.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/foundation/format.h"
#include "platform/foundation/plist.h"
#include "platform/foundation/utf8.h"

namespace pnx {

namespace {

constexpr const char* kArchiverName = "NSKeyedArchiver";
constexpr std::int64_t kArchiveVersion = 100000;
constexpr const char* kUidKey = "CF$UID";
constexpr const char* kNullMarker = "$null";

ErrorPtr writeError(const std::string& reason) {
  return Error::withDescription(NSCocoaErrorDomain, 4866,
                                "The data couldn’t be written: " + reason + ".");
}

// Builds a binary property list ("bplist00") object by object, children before the
// containers that refer to them, and writes it out at the end, when the size of the
// references is known. Equal strings and equal UIDs become one object. Linear in the
// number of objects (libplist's writer slows down quadratically on archives of tens of
// thousands of objects, which a long delivery queue reaches).
class BinaryPlistWriter {
 public:
  using Ref = std::uint64_t;

  Ref string(std::string_view text) {
    auto found = strings_.find(text);
    if (found != strings_.end()) return found->second;
    Ref ref = scalar([&](Data& out) { encodeString(text, out); });
    strings_.emplace(std::string(text), ref);
    return ref;
  }

  Ref integer(std::int64_t value) {
    return scalar([&](Data& out) { encodeInteger(value, out); });
  }

  Ref real(double value) {
    return scalar([&](Data& out) {
      std::uint64_t bits;
      std::memcpy(&bits, &value, sizeof bits);
      out.push_back(0x23);
      appendBigEndian(bits, 8, out);
    });
  }

  Ref boolean(bool value) {
    return scalar([&](Data& out) { out.push_back(value ? 0x09 : 0x08); });
  }

  Ref data(const Data& bytes) {
    return scalar([&](Data& out) {
      encodeMarker(0x4, bytes.size(), out);
      out.insert(out.end(), bytes.begin(), bytes.end());
    });
  }

  Ref uid(std::uint64_t index) {
    auto found = uids_.find(index);
    if (found != uids_.end()) return found->second;
    Ref ref = scalar([&](Data& out) {
      int bytes = byteCount(index);
      out.push_back(static_cast<std::uint8_t>(0x80 | (bytes - 1)));
      appendBigEndian(index, bytes, out);
    });
    uids_.emplace(index, ref);
    return ref;
  }

  Ref array(std::vector<Ref> items) {
    nodes_.push_back({{}, 0xa, std::move(items)});
    return nodes_.size() - 1;
  }

  // entries: the keys (string objects) and their values.
  Ref dictionary(const std::vector<std::pair<Ref, Ref>>& entries) {
    std::vector<Ref> references;
    references.reserve(entries.size() * 2);
    for (const auto& entry : entries) references.push_back(entry.first);
    for (const auto& entry : entries) references.push_back(entry.second);
    nodes_.push_back({{}, 0xd, std::move(references)});
    return nodes_.size() - 1;
  }

  // The whole property list with top as its root; nullopt and *error when a string was
  // not UTF-8.
  std::optional<Data> finish(Ref top, ErrorPtr* error) {
    if (!failure_.empty()) {
      if (error) *error = writeError(failure_);
      return std::nullopt;
    }
    int refSize = byteCount(nodes_.size() - 1);
    Data out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint64_t> offsets;
    offsets.reserve(nodes_.size());
    for (const Node& node : nodes_) {
      offsets.push_back(out.size());
      if (node.containerType == 0) {
        out.insert(out.end(), node.bytes.begin(), node.bytes.end());
        continue;
      }
      std::size_t count = node.references.size() / (node.containerType == 0xd ? 2 : 1);
      encodeMarker(node.containerType, count, out);
      for (Ref reference : node.references) appendBigEndian(reference, refSize, out);
    }
    std::uint64_t tableOffset = out.size();
    int offsetSize = byteCount(tableOffset);
    for (std::uint64_t offset : offsets) appendBigEndian(offset, offsetSize, out);
    out.insert(out.end(), 6, 0);  // unused bytes and the sort version
    out.push_back(static_cast<std::uint8_t>(offsetSize));
    out.push_back(static_cast<std::uint8_t>(refSize));
    appendBigEndian(nodes_.size(), 8, out);
    appendBigEndian(top, 8, out);
    appendBigEndian(tableOffset, 8, out);
    return out;
  }

 private:
  struct Node {
    Data bytes;                   // a scalar, encoded
    std::uint8_t containerType;   // 0 for a scalar, 0xa array, 0xd dictionary
    std::vector<Ref> references;  // a dictionary's keys, then its values
  };

  template <class Encode>
  Ref scalar(const Encode& encode) {
    nodes_.push_back({{}, 0, {}});
    encode(nodes_.back().bytes);
    return nodes_.size() - 1;
  }

  static int byteCount(std::uint64_t value) {
    if (value <= 0xff) return 1;
    if (value <= 0xffff) return 2;
    if (value <= 0xffffffffULL) return 4;
    return 8;
  }

  static void appendBigEndian(std::uint64_t value, int bytes, Data& out) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
      out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
  }

  static void encodeInteger(std::int64_t value, Data& out) {
    // Negative integers always take eight bytes; others the fewest of 1, 2, 4, 8.
    int bytes = value < 0 ? 8 : byteCount(static_cast<std::uint64_t>(value));
    int power = bytes == 1 ? 0 : bytes == 2 ? 1 : bytes == 4 ? 2 : 3;
    out.push_back(static_cast<std::uint8_t>(0x10 | power));
    appendBigEndian(static_cast<std::uint64_t>(value), bytes, out);
  }

  // A type nibble with its count; a count of 15 or more follows as an integer object.
  static void encodeMarker(std::uint8_t type, std::uint64_t count, Data& out) {
    if (count < 15) {
      out.push_back(static_cast<std::uint8_t>(type << 4 | count));
      return;
    }
    out.push_back(static_cast<std::uint8_t>(type << 4 | 0x0f));
    encodeInteger(static_cast<std::int64_t>(count), out);
  }

  // ASCII as it is, anything else as UTF-16 big-endian.
  void encodeString(std::string_view text, Data& out) {
    // Property-list readers end strings at a NUL: refuse rather than lose what follows.
    if (text.find('\0') != std::string_view::npos) {
      failure_ = "a string contains a NUL character";
      return;
    }
    bool ascii = std::all_of(text.begin(), text.end(),
                             [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (ascii) {
      encodeMarker(0x5, text.size(), out);
      out.insert(out.end(), text.begin(), text.end());
      return;
    }
    if (!isValidUTF8(text)) {
      failure_ = "a string is not UTF-8";
      return;
    }
    const std::u16string units = utf16FromUTF8(text);
    encodeMarker(0x6, units.size(), out);
    for (char16_t unit : units) appendBigEndian(unit, 2, out);
  }

  std::vector<Node> nodes_;
  std::map<std::string, Ref, std::less<>> strings_;
  std::unordered_map<std::uint64_t, Ref> uids_;
  std::string failure_;
};

// Lays values out in the archive's object table ($objects) and writes the archive.
class ArchiveWriter {
 public:
  using Ref = BinaryPlistWriter::Ref;

  // Appends value (and everything it holds) to $objects; returns its UID, or nullopt and
  // *error for a value that cannot be archived.
  std::optional<std::uint64_t> encode(const Value& value, int depth, ErrorPtr* error) {
    if (depth > KeyedUnarchiver::kMaxDepth) {
      return fail("the value is nested deeper than " + std::to_string(KeyedUnarchiver::kMaxDepth) +
                      " levels",
                  error);
    }
    // The reader's limit, so that whatever is written here can be read back.
    if (++encoded_ > KeyedUnarchiver::kMaxExpandedObjects) {
      return fail("the value holds more than " +
                      std::to_string(KeyedUnarchiver::kMaxExpandedObjects) + " objects",
                  error);
    }
    switch (value.type()) {
      case Value::Type::Boolean:
        return append(plist_.boolean(value.boolValue()));
      case Value::Type::Integer:
        return append(plist_.integer(value.integerValue()));
      case Value::Type::Real:
        return append(plist_.real(value.doubleValue()));
      case Value::Type::String:
        return appendString(*value.asString());
      case Value::Type::Null:
        return append(instance("NSNull", {}));
      case Value::Type::Date:
        return append(
            instance("NSDate",
                     {{"NS.time", plist_.real(value.asDate()->timeIntervalSinceReferenceDate())}}));
      case Value::Type::Data:
        return append(instance("NSData", {{"NS.data", plist_.data(*value.asData())}}));
      case Value::Type::Array:
        return encodeElements("NSArray", *value.asArray(), depth, error);
      case Value::Type::Set:
        return encodeElements("NSSet", *value.asSet(), depth, error);
      case Value::Type::Dictionary:
        return encodeDictionary(*value.asDictionary(), depth, error);
      case Value::Type::Object:
        break;
    }
    return fail("a " + value.className() + " cannot be archived", error);
  }

  std::optional<Data> finish(std::uint64_t root, ErrorPtr* error) {
    Ref top = plist_.dictionary({{plist_.string("root"), plist_.uid(root)}});
    Ref archive = plist_.dictionary({
        {plist_.string("$version"), plist_.integer(kArchiveVersion)},
        {plist_.string("$archiver"), plist_.string(kArchiverName)},
        {plist_.string("$top"), top},
        {plist_.string("$objects"), plist_.array(objects_)},
    });
    return plist_.finish(archive, error);
  }

 private:
  static std::nullopt_t fail(const std::string& reason, ErrorPtr* error) {
    if (error) *error = writeError(reason);
    return std::nullopt;
  }

  std::uint64_t append(Ref object) {
    objects_.push_back(object);
    return objects_.size() - 1;
  }

  // Equal strings are stored once, as the platform's archiver does.
  std::uint64_t appendString(const std::string& text) {
    auto found = strings_.find(text);
    if (found != strings_.end()) return found->second;
    std::uint64_t index = append(plist_.string(text));
    strings_.emplace(text, index);
    return index;
  }

  // The UID of the class entry {"$classname": name, "$classes": [name, "NSObject"]},
  // written once per class.
  std::uint64_t classEntry(const std::string& name) {
    auto found = classes_.find(name);
    if (found != classes_.end()) return found->second;
    Ref classes = plist_.array({plist_.string(name), plist_.string("NSObject")});
    std::uint64_t index =
        append(plist_.dictionary({{plist_.string("$classname"), plist_.string(name)},
                                  {plist_.string("$classes"), classes}}));
    classes_.emplace(name, index);
    return index;
  }

  // An object {"$class": UID, fields...}.
  Ref instance(const std::string& className, std::vector<std::pair<const char*, Ref>> fields) {
    std::vector<std::pair<Ref, Ref>> entries{
        {plist_.string("$class"), plist_.uid(classEntry(className))}};
    for (const auto& [key, ref] : fields) entries.push_back({plist_.string(key), ref});
    return plist_.dictionary(entries);
  }

  // The container's slot comes before its elements, as in the platform's archives.
  template <class Range>
  std::optional<std::uint64_t> encodeElements(const char* className, const Range& elements,
                                              int depth, ErrorPtr* error) {
    std::uint64_t slot = append(0);
    auto references = encodeAll(elements, depth, error);
    if (!references) return std::nullopt;
    objects_[slot] = instance(className, {{"NS.objects", plist_.array(std::move(*references))}});
    return slot;
  }

  std::optional<std::uint64_t> encodeDictionary(const Dictionary& dictionary, int depth,
                                                ErrorPtr* error) {
    std::uint64_t slot = append(0);
    std::vector<Value> keys, values;
    for (const auto& [key, value] : dictionary) {
      keys.push_back(key);
      values.push_back(value);
    }
    auto keyReferences = encodeAll(keys, depth, error);
    if (!keyReferences) return std::nullopt;
    auto valueReferences = encodeAll(values, depth, error);
    if (!valueReferences) return std::nullopt;
    objects_[slot] =
        instance("NSDictionary", {{"NS.keys", plist_.array(std::move(*keyReferences))},
                                  {"NS.objects", plist_.array(std::move(*valueReferences))}});
    return slot;
  }

  // The UIDs of the elements, as property-list objects.
  template <class Range>
  std::optional<std::vector<Ref>> encodeAll(const Range& elements, int depth, ErrorPtr* error) {
    std::vector<Ref> references;
    for (const Value& element : elements) {
      auto index = encode(element, depth + 1, error);
      if (!index) return std::nullopt;
      references.push_back(plist_.uid(*index));
    }
    return references;
  }

  BinaryPlistWriter plist_;
  std::vector<Ref> objects_{plist_.string(kNullMarker)};
  std::map<std::string, std::uint64_t> strings_;
  std::map<std::string, std::uint64_t> classes_;
  std::size_t encoded_ = 0;
};

[[noreturn]] void fail(const std::string& reason) {
  throw Exception(NSInvalidUnarchiveOperationException,
                  "*** -[NSKeyedUnarchiver decodeObject]: " + reason);
}

class ArchiveReader {
 public:
  explicit ArchiveReader(const Array& objects)
      : objects_(objects),
        states_(objects.size(), State::Pending),
        decoded_(objects.size()),
        sizes_(objects.size(), 0),
        heights_(objects.size(), 0) {
    if (objects_.empty() || !(objects_[0] == Value(kNullMarker))) {
      fail("the object table does not start with $null");
    }
  }

  // The object a UID refers to, decoded. Limits apply to the tree as it comes out, with
  // shared objects repeated, so that whatever is read here can be archived again.
  Value decodeReference(const Value& reference, int depth) {
    std::size_t index = indexOf(reference);
    reachDepth(depth);
    if (index == 0) {
      countExpanded(1);
      return Value();
    }
    if (states_[index] == State::InProgress) {
      fail("object " + std::to_string(index) + " contains itself");
    }
    if (states_[index] == State::Pending) decodeObject(index, depth);
    // A finished object counts again, and as deep as it reaches from here.
    reachDepth(depth + heights_[index]);
    countExpanded(sizes_[index]);
    return decoded_[index];
  }

 private:
  enum class State { Pending, InProgress, Done };

  std::size_t indexOf(const Value& reference) const {
    const Value& number = reference[kUidKey];
    if (!reference.isDictionary() || reference.size() != 1 || !number.isInteger()) {
      fail("malformed object reference " + excerpt(reference.description()));
    }
    std::int64_t index = number.integerValue();
    if (index < 0 || static_cast<std::uint64_t>(index) >= objects_.size()) {
      fail("reference " + std::to_string(index) + " points outside the object table");
    }
    return static_cast<std::size_t>(index);
  }

  void reachDepth(int depth) {
    if (depth > KeyedUnarchiver::kMaxDepth) {
      fail("objects are nested deeper than " + std::to_string(KeyedUnarchiver::kMaxDepth) +
           " levels");
    }
    deepest_ = std::max(deepest_, depth);
  }

  // Decodes the object once, recording how many objects and how many levels it expands to.
  void decodeObject(std::size_t index, int depth) {
    states_[index] = State::InProgress;
    std::size_t expandedBefore = expanded_;
    int deepestBefore = deepest_;
    deepest_ = depth;
    countExpanded(1);
    decoded_[index] = decodeRaw(objects_[index], depth);
    sizes_[index] = expanded_ - expandedBefore;
    heights_[index] = deepest_ - depth;
    expanded_ = expandedBefore;  // the caller counts the object's whole size
    deepest_ = std::max(deepestBefore, deepest_);
    states_[index] = State::Done;
  }

  // Shared objects count once per use, so an archive cannot expand into more objects
  // than a caller could ever hold.
  void countExpanded(std::size_t count) {
    expanded_ += count;
    if (expanded_ > KeyedUnarchiver::kMaxExpandedObjects) {
      fail("the archive expands to more than " +
           std::to_string(KeyedUnarchiver::kMaxExpandedObjects) + " objects");
    }
  }

  Value decodeRaw(const Value& raw, int depth) {
    switch (raw.type()) {
      case Value::Type::Boolean:
      case Value::Type::Integer:
      case Value::Type::Real:
      case Value::Type::Data:
      case Value::Type::Date:
        return raw;
      case Value::Type::String:
        return checkedString(raw);
      case Value::Type::Dictionary:
        return decodeInstance(raw, depth);
      default:
        fail("an entry of type " + raw.className() + " is not an object");
    }
  }

  // Strings must be what the archiver writes: UTF-8 without NUL characters.
  static const Value& checkedString(const Value& text) {
    const std::string& value = *text.asString();
    if (!isValidUTF8(value)) fail("a string is not UTF-8");
    if (value.find('\0') != std::string::npos) fail("a string contains a NUL character");
    return text;
  }

  std::string classNameOf(const Value& instance) const {
    if (!instance.contains(Value("$class"))) fail("an object has no $class");
    std::size_t index = indexOf(instance["$class"]);
    const Value& name = objects_[index]["$classname"];
    if (!name.isString()) fail("a $class entry has no $classname");
    return *name.asString();
  }

  Value decodeInstance(const Value& instance, int depth) {
    std::string className = classNameOf(instance);
    if (className == "NSArray" || className == "NSMutableArray") {
      return Value(decodeList(instance, "NS.objects", depth));
    }
    if (className == "NSSet" || className == "NSMutableSet") {
      Array elements = decodeList(instance, "NS.objects", depth);
      return Value(Set(elements.begin(), elements.end()));
    }
    if (className == "NSDictionary" || className == "NSMutableDictionary") {
      return decodeDictionary(instance, depth);
    }
    if (className == "NSDate") {
      const Value& time = instance["NS.time"];
      if (!time.isNumber()) fail("NSDate without NS.time");
      return Value(Date::fromReferenceDate(time.doubleValue()));
    }
    if (className == "NSData" || className == "NSMutableData") {
      const Value& bytes = instance["NS.data"];
      if (!bytes.isData()) fail(className + " without NS.data");
      return bytes;
    }
    if (className == "NSString" || className == "NSMutableString") {
      const Value& text = instance["NS.string"];
      if (!text.isString()) fail(className + " without NS.string");
      return checkedString(text);
    }
    if (className == "NSNull") return Value();
    fail("cannot decode object of class (" + excerpt(className) + ")");
  }

  Array decodeList(const Value& instance, const char* key, int depth) {
    const Value& references = instance[key];
    if (!references.isArray()) fail(std::string("an object has no ") + key + " array");
    Array elements;
    elements.reserve(references.size());
    for (const Value& reference : *references.asArray()) {
      elements.push_back(decodeReference(reference, depth + 1));
    }
    return elements;
  }

  Value decodeDictionary(const Value& instance, int depth) {
    Array keys = decodeList(instance, "NS.keys", depth);
    Array values = decodeList(instance, "NS.objects", depth);
    if (keys.size() != values.size()) fail("a dictionary has more keys than objects or fewer");
    Dictionary dictionary;
    for (std::size_t i = 0; i < keys.size(); ++i) dictionary[keys[i]] = values[i];
    return Value(std::move(dictionary));
  }

  const Array& objects_;
  std::vector<State> states_;
  std::vector<Value> decoded_;
  std::vector<std::size_t> sizes_;
  std::vector<int> heights_;
  std::size_t expanded_ = 0;
  int deepest_ = 0;
};

}  // namespace

std::optional<Data> KeyedArchiver::archivedDataWithRootObject(const Value& root, ErrorPtr* error) {
  ArchiveWriter writer;
  std::uint64_t rootIndex = 0;  // the $null reference
  if (!root.isNull()) {
    auto index = writer.encode(root, 0, error);
    if (!index) return std::nullopt;
    rootIndex = *index;
  }
  return writer.finish(rootIndex, error);
}

Value KeyedUnarchiver::unarchiveObjectWithData(const Data& data) {
  ErrorPtr parseError;
  auto archive = PropertyList::parse(data, &parseError);
  if (!archive) {
    fail("incomprehensible archive: " +
         (parseError ? parseError->localizedDescription() : std::string("not a property list")));
  }
  if (!archive->isDictionary()) fail("incomprehensible archive: not a dictionary");
  const Value& archiver = (*archive)["$archiver"];
  if (!(archiver == Value(kArchiverName))) {
    fail("incomprehensible archive: archiver " + excerpt(archiver.description()) + " is not " +
         kArchiverName);
  }
  if (!(*archive)["$version"].isNumber()) fail("incomprehensible archive: no $version");
  const Value& objects = (*archive)["$objects"];
  if (!objects.isArray()) fail("incomprehensible archive: no $objects array");
  const Value& top = (*archive)["$top"];
  if (!top.contains(Value("root"))) fail("incomprehensible archive: no root in $top");
  ArchiveReader reader(*objects.asArray());
  return reader.decodeReference(top["root"], 0);
}

}  // namespace pnx
