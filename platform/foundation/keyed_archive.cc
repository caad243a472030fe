#include "platform/foundation/keyed_archive.h"

#include <algorithm>
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

// Lays values out in the archive's object table ($objects), as property-list values with
// UIDs ({"CF$UID": n}) for the references, and writes the archive with the property-list
// writer.
class ArchiveWriter {
 public:
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
      case Value::Type::Integer:
      case Value::Type::Real:
        return append(value);
      case Value::Type::String:
        return appendString(*value.asString(), error);
      case Value::Type::Null:
        return append(instance("NSNull", {}));
      case Value::Type::Date:
        return append(instance(
            "NSDate", {{"NS.time", Value(value.asDate()->timeIntervalSinceReferenceDate())}}));
      case Value::Type::Data:
        return append(instance("NSData", {{"NS.data", value}}));
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
    Dictionary archive;
    archive.emplace(Value("$version"), Value(kArchiveVersion));
    archive.emplace(Value("$archiver"), Value(kArchiverName));
    archive.emplace(Value("$top"), Value::dict({{"root", uid(root)}}));
    archive.emplace(Value("$objects"), Value(std::move(objects_)));
    ErrorPtr plistError;
    auto data = PropertyList::serialize(Value(std::move(archive)), PropertyList::Format::Binary,
                                        &plistError);
    if (!data) {
      return fail(plistError ? plistError->localizedDescription() : "no property list", error);
    }
    return data;
  }

 private:
  static std::nullopt_t fail(const std::string& reason, ErrorPtr* error) {
    if (error) *error = writeError(reason);
    return std::nullopt;
  }

  std::uint64_t append(Value object) {
    objects_.push_back(std::move(object));
    return objects_.size() - 1;
  }

  // A reference to the object at index; one shared Value per index.
  Value uid(std::uint64_t index) {
    if (index >= uids_.size()) uids_.resize(index + 1);
    if (uids_[index].isNull()) uids_[index] = Value::dict({{kUidKey, Value(index)}});
    return uids_[index];
  }

  // Equal strings are stored once, as the platform's archiver does. A property list holds
  // no NUL character (readers end strings there) and no text that is not UTF-8.
  std::optional<std::uint64_t> appendString(const std::string& text, ErrorPtr* error) {
    if (auto found = strings_.find(text); found != strings_.end()) return found->second;
    if (text.find('\0') != std::string::npos)
      return fail("a string contains a NUL character", error);
    if (!isValidUTF8(text)) return fail("a string is not UTF-8", error);
    std::uint64_t index = append(Value(text));
    strings_.emplace(text, index);
    return index;
  }

  // The UID of the class entry {"$classname": name, "$classes": [name, "NSObject"]},
  // written once per class.
  Value classEntry(const std::string& name) {
    auto found = classes_.find(name);
    if (found == classes_.end()) {
      const std::uint64_t index = append(Value::dict(
          {{"$classname", name}, {"$classes", Value::array({Value(name), Value("NSObject")})}}));
      found = classes_.emplace(name, index).first;
    }
    return uid(found->second);
  }

  // An object {"$class": UID, fields...}.
  Value instance(const std::string& className,
                 std::initializer_list<std::pair<std::string_view, Value>> fields) {
    Dictionary entries;
    entries.emplace(Value("$class"), classEntry(className));
    for (const auto& [key, value] : fields) entries.emplace(Value(key), value);
    return Value(std::move(entries));
  }

  // The container's slot comes before its elements, as in the platform's archives.
  template <class Range>
  std::optional<std::uint64_t> encodeElements(const char* className, const Range& elements,
                                              int depth, ErrorPtr* error) {
    std::uint64_t slot = append(Value());
    auto references = encodeAll(elements, depth, error);
    if (!references) return std::nullopt;
    objects_[slot] = instance(className, {{"NS.objects", Value(std::move(*references))}});
    return slot;
  }

  std::optional<std::uint64_t> encodeDictionary(const Dictionary& dictionary, int depth,
                                                ErrorPtr* error) {
    std::uint64_t slot = append(Value());
    Array keys, values;
    keys.reserve(dictionary.size());
    values.reserve(dictionary.size());
    for (const auto& [key, value] : dictionary) {
      keys.push_back(key);
      values.push_back(value);
    }
    auto keyReferences = encodeAll(keys, depth, error);
    if (!keyReferences) return std::nullopt;
    auto valueReferences = encodeAll(values, depth, error);
    if (!valueReferences) return std::nullopt;
    objects_[slot] = instance("NSDictionary", {{"NS.keys", Value(std::move(*keyReferences))},
                                               {"NS.objects", Value(std::move(*valueReferences))}});
    return slot;
  }

  // The UIDs of the elements.
  template <class Range>
  std::optional<Array> encodeAll(const Range& elements, int depth, ErrorPtr* error) {
    Array references;
    references.reserve(elements.size());
    for (const Value& element : elements) {
      auto index = encode(element, depth + 1, error);
      if (!index) return std::nullopt;
      references.push_back(uid(*index));
    }
    return references;
  }

  Array objects_{Value(kNullMarker)};
  std::vector<Value> uids_;
  std::unordered_map<std::string, std::uint64_t> strings_;
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
