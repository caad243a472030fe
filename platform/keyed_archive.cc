#include "platform/keyed_archive.h"

#include <map>
#include <string>
#include <vector>

#include "platform/plist.h"

namespace pnx {

namespace {

constexpr const char* kArchiverName = "NSKeyedArchiver";
constexpr std::int64_t kArchiveVersion = 100000;
constexpr const char* kUidKey = "CF$UID";
constexpr const char* kNullMarker = "$null";

// A reference to $objects[index]; the property-list layer writes it as a binary UID.
Value uid(std::int64_t index) {
  return Value::dict({{kUidKey, index}});
}

class ArchiveWriter {
 public:
  // Appends value (and everything it holds) to $objects; returns its UID, or nullopt and
  // *error for a value that cannot be archived.
  std::optional<Value> encode(const Value& value, int depth, ErrorPtr* error) {
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
        return uid(append(value));
      case Value::Type::String:
        return uid(appendString(*value.asString()));
      case Value::Type::Null:
        return uid(append(objectOfClass("NSNull")));
      case Value::Type::Date: {
        Value object = objectOfClass("NSDate");
        return uid(
            append(with(object, "NS.time", value.asDate()->timeIntervalSinceReferenceDate())));
      }
      case Value::Type::Data:
        return uid(append(with(objectOfClass("NSData"), "NS.data", value)));
      case Value::Type::Array:
        return encodeElements("NSArray", *value.asArray(), depth, error);
      case Value::Type::Set: {
        const Set& set = *value.asSet();
        return encodeElements("NSSet", Array(set.begin(), set.end()), depth, error);
      }
      case Value::Type::Dictionary:
        return encodeDictionary(*value.asDictionary(), depth, error);
      case Value::Type::Object:
        break;
    }
    return fail("a " + value.className() + " cannot be archived", error);
  }

  Value archive(const Value& root) const {
    Dictionary top;
    top[Value("root")] = root;
    Dictionary archive;
    archive[Value("$archiver")] = Value(kArchiverName);
    archive[Value("$version")] = Value(static_cast<long long>(kArchiveVersion));
    archive[Value("$top")] = Value(std::move(top));
    archive[Value("$objects")] = Value(objects_);
    return Value(std::move(archive));
  }

 private:
  static std::optional<Value> fail(const std::string& reason, ErrorPtr* error) {
    if (error) {
      *error = Error::withDescription(NSCocoaErrorDomain, 4866,
                                      "The data couldn’t be written: " + reason + ".");
    }
    return std::nullopt;
  }

  static Value with(const Value& object, const char* key, const Value& entry) {
    Dictionary dictionary = *object.asDictionary();
    dictionary[Value(key)] = entry;
    return Value(std::move(dictionary));
  }

  std::int64_t append(Value object) {
    objects_.push_back(std::move(object));
    return static_cast<std::int64_t>(objects_.size() - 1);
  }

  // Equal strings are stored once, as the platform's archiver does.
  std::int64_t appendString(const std::string& text) {
    auto found = strings_.find(text);
    if (found != strings_.end()) return found->second;
    std::int64_t index = append(Value(text));
    strings_.emplace(text, index);
    return index;
  }

  // A fresh object {"$class": UID} of the named class; the class entry is written once.
  Value objectOfClass(const std::string& name) {
    auto found = classes_.find(name);
    std::int64_t index;
    if (found != classes_.end()) {
      index = found->second;
    } else {
      index = append(Value::dict({{"$classname", Value(name)},
                                  {"$classes", Value::array({Value(name), Value("NSObject")})}}));
      classes_.emplace(name, index);
    }
    return Value::dict({{"$class", uid(index)}});
  }

  // The container's slot comes before its elements, as in the platform's archives.
  std::optional<Value> encodeElements(const char* className, const Array& elements, int depth,
                                      ErrorPtr* error) {
    std::int64_t slot = append(Value());
    auto references = encodeAll(elements, depth, error);
    if (!references) return std::nullopt;
    objects_[slot] = with(objectOfClass(className), "NS.objects", Value(std::move(*references)));
    return uid(slot);
  }

  std::optional<Value> encodeDictionary(const Dictionary& dictionary, int depth, ErrorPtr* error) {
    std::int64_t slot = append(Value());
    Array keys, values;
    for (const auto& [key, value] : dictionary) {
      keys.push_back(key);
      values.push_back(value);
    }
    auto keyReferences = encodeAll(keys, depth, error);
    if (!keyReferences) return std::nullopt;
    auto valueReferences = encodeAll(values, depth, error);
    if (!valueReferences) return std::nullopt;
    Value object = with(objectOfClass("NSDictionary"), "NS.keys", Value(std::move(*keyReferences)));
    objects_[slot] = with(object, "NS.objects", Value(std::move(*valueReferences)));
    return uid(slot);
  }

  std::optional<Array> encodeAll(const Array& elements, int depth, ErrorPtr* error) {
    Array references;
    references.reserve(elements.size());
    for (const Value& element : elements) {
      auto reference = encode(element, depth + 1, error);
      if (!reference) return std::nullopt;
      references.push_back(std::move(*reference));
    }
    return references;
  }

  Array objects_{Value(kNullMarker)};
  std::map<std::string, std::int64_t> strings_;
  std::map<std::string, std::int64_t> classes_;
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
        sizes_(objects.size(), 0) {
    if (objects_.empty() || !(objects_[0] == Value(kNullMarker))) {
      fail("the object table does not start with $null");
    }
  }

  // The object a UID refers to, decoded.
  Value decodeReference(const Value& reference, int depth) {
    std::size_t index = indexOf(reference);
    if (index == 0) return Value();
    decodeObject(index, depth);
    return decoded_[index];
  }

 private:
  enum class State { Pending, InProgress, Done };

  std::size_t indexOf(const Value& reference) const {
    const Value& number = reference[kUidKey];
    if (!reference.isDictionary() || reference.size() != 1 || !number.isInteger()) {
      fail("malformed object reference " + reference.description());
    }
    std::int64_t index = number.integerValue();
    if (index < 0 || static_cast<std::uint64_t>(index) >= objects_.size()) {
      fail("reference " + std::to_string(index) + " points outside the object table");
    }
    return static_cast<std::size_t>(index);
  }

  void decodeObject(std::size_t index, int depth) {
    if (states_[index] == State::Done) return countExpanded(sizes_[index]);
    if (states_[index] == State::InProgress) {
      fail("object " + std::to_string(index) + " contains itself");
    }
    if (depth > KeyedUnarchiver::kMaxDepth) {
      fail("objects are nested deeper than " + std::to_string(KeyedUnarchiver::kMaxDepth) +
           " levels");
    }
    states_[index] = State::InProgress;
    std::size_t expandedBefore = expanded_;
    countExpanded(1);
    decoded_[index] = decodeRaw(objects_[index], depth);
    sizes_[index] = expanded_ - expandedBefore;
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
      case Value::Type::String:
      case Value::Type::Data:
      case Value::Type::Date:
        return raw;
      case Value::Type::Dictionary:
        return decodeInstance(raw, depth);
      default:
        fail("an entry of type " + raw.className() + " is not an object");
    }
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
      return text;
    }
    if (className == "NSNull") return Value();
    fail("cannot decode object of class (" + className + ")");
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
  std::size_t expanded_ = 0;
};

}  // namespace

std::optional<Data> KeyedArchiver::archivedDataWithRootObject(const Value& root, ErrorPtr* error) {
  ArchiveWriter writer;
  Value rootReference = uid(0);
  if (!root.isNull()) {
    auto reference = writer.encode(root, 0, error);
    if (!reference) return std::nullopt;
    rootReference = *reference;
  }
  return PropertyList::serialize(writer.archive(rootReference), PropertyList::Format::Binary,
                                 error);
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
    fail("incomprehensible archive: archiver " + archiver.description() + " is not " +
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
