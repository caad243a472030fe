#include "platform/foundation/keyed_archive.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/binary_plist_writer.h"
#include "platform/foundation/format.h"
#include "platform/foundation/plist_document.h"
#include "platform/foundation/string_table.h"
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

// The classes of the archive's objects, each with its class entry
// {"$classname": name, "$classes": [name, "NSObject"]}, written once.
enum class ArchivedClass : std::uint8_t { Null, Date, Data, Array, Set, Dictionary };
constexpr std::size_t kArchivedClassCount = 6;
constexpr std::string_view kClassNames[kArchivedClassCount] = {"NSNull",  "NSDate", "NSData",
                                                               "NSArray", "NSSet",  "NSDictionary"};

// The strings of the archive's own layout: its keys, class names and markers.
constexpr std::string_view kLayoutStrings[] = {
    "$null",   "$archiver", "NSKeyedArchiver", "$objects", "$top",    "root",       "$version",
    "$class",  "$classes",  "$classname",      "NSObject", "NS.keys", "NS.objects", "NS.time",
    "NS.data", "NSNull",    "NSDate",          "NSData",   "NSArray", "NSSet",      "NSDictionary"};

const std::string& nullMarkerText() {
  static const std::string text(kNullMarker);
  return text;
}

bool isLayoutString(std::string_view text) {
  return std::find(std::begin(kLayoutStrings), std::end(kLayoutStrings), text) !=
         std::end(kLayoutStrings);
}

// Lays values out in the archive's object table ($objects), then writes the table as a
// binary property list. The table is kept lean: strings are views into the value being
// archived, references are indexes into one shared list, so that archiving a long queue
// builds no intermediate Value.
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
        return append({Entry::Shape::Number, {}, 0, &value});
      case Value::Type::String:
        return appendString(*value.asString(), error);
      case Value::Type::Null:
        return appendInstance(ArchivedClass::Null, nullptr);
      case Value::Type::Date:
        return appendInstance(ArchivedClass::Date, &value);
      case Value::Type::Data:
        return appendInstance(ArchivedClass::Data, &value);
      case Value::Type::Array:
        return encodeElements(ArchivedClass::Array, *value.asArray(), depth, error);
      case Value::Type::Set:
        return encodeElements(ArchivedClass::Set, *value.asSet(), depth, error);
      case Value::Type::Dictionary:
        return encodeDictionary(*value.asDictionary(), depth, error);
      case Value::Type::Object:
        break;
    }
    return fail("a " + value.className() + " cannot be archived", error);
  }

  // The property list {"$archiver", "$objects", "$top", "$version"}, its objects added in the
  // order a walk of its keys (sorted) and values reaches them, as the property-list writer
  // numbers a Value of the same shape.
  Data finish(std::uint64_t root) {
    using Ref = BinaryPlistWriter::Ref;
    // Each object of the table takes at most four objects of the list (an instance, its
    // two lists and its UID), each reference one more.
    constexpr std::size_t kFixed = 64;
    out_.reserve(4 * entries_.size() + kFixed, 6 * entries_.size() + references_.size() + kFixed,
                 stringBytes_ + 16 * entries_.size() + kFixed);
    const Ref archiverKey = layoutString("$archiver");
    const Ref archiver = layoutString(kArchiverName);
    const Ref objectsKey = layoutString("$objects");
    std::vector<Ref> objects;
    objects.reserve(entries_.size());
    for (const Entry& entry : entries_) objects.push_back(write(entry));
    const Ref objectTable = out_.array(objects);
    const Ref topKey = layoutString("$top");
    const Ref rootKey = layoutString("root");
    const Ref rootUID = out_.uid(root);
    const Ref top = out_.dictionary(std::span(&rootKey, 1), std::span(&rootUID, 1));
    const Ref versionKey = layoutString("$version");
    const Ref version = out_.integer(kArchiveVersion);
    const Ref keys[] = {archiverKey, objectsKey, topKey, versionKey};
    const Ref values[] = {archiver, objectTable, top, version};
    return out_.finish(out_.dictionary(keys, values));
  }

 private:
  // One object of $objects.
  // Small, as there is one per object: indexes fit 32 bits under kMaxExpandedObjects.
  struct Entry {
    enum class Shape : std::uint8_t { Number, String, Instance, ClassEntry };
    Shape shape;
    ArchivedClass archivedClass = ArchivedClass::Null;  // instances and class entries
    std::uint32_t classIndex = 0;                       // instances: their class entry
    const Value* value = nullptr;                       // numbers, dates and data
    const std::string* text = nullptr;                  // strings
    std::uint32_t first = 0;  // arrays and sets: their elements' UIDs in references_;
    std::uint32_t count = 0;  // dictionaries: count keys, then count objects
  };

  static std::nullopt_t fail(const std::string& reason, ErrorPtr* error) {
    if (error) *error = writeError(reason);
    return std::nullopt;
  }

  std::uint64_t append(const Entry& entry) {
    entries_.push_back(entry);
    return entries_.size() - 1;
  }

  // Equal strings are stored once, as the platform's archiver does. A property list holds
  // no NUL character (readers end strings there) and no text that is not UTF-8.
  // Strings shared by many values (a key of every record) are recognised by their address
  // before they are hashed.
  std::optional<std::uint64_t> appendString(const std::string& text, ErrorPtr* error) {
    SeenString& seen =
        seenStrings_[(reinterpret_cast<std::uintptr_t>(&text) / alignof(std::string)) %
                     seenStrings_.size()];
    if (seen.text == &text) return seen.index;
    auto [index, added] = strings_.tryEmplace(text, entries_.size());
    if (added) {
      if (text.find('\0') != std::string::npos) {
        return fail("a string contains a NUL character", error);
      }
      if (!isValidUTF8(text)) return fail("a string is not UTF-8", error);
      stringBytes_ += text.size();
      append({Entry::Shape::String, {}, 0, nullptr, &text});
    }
    seen = {&text, index};
    return index;
  }

  // The index of the class entry, appended when the class is first used.
  std::uint64_t classEntry(ArchivedClass archivedClass) {
    std::uint64_t& index = classIndexes_[static_cast<std::size_t>(archivedClass)];
    if (index == 0) index = append({Entry::Shape::ClassEntry, archivedClass});
    return index;
  }

  // An object without elements: its class entry comes before it.
  std::uint64_t appendInstance(ArchivedClass archivedClass, const Value* value) {
    const std::uint64_t classIndex = classEntry(archivedClass);
    return append(
        {Entry::Shape::Instance, archivedClass, static_cast<std::uint32_t>(classIndex), value});
  }

  // The container's slot comes before its elements, and its class entry after them, as in
  // the platform's archives.
  template <class Range>
  std::optional<std::uint64_t> encodeElements(ArchivedClass archivedClass, const Range& elements,
                                              int depth, ErrorPtr* error) {
    const std::uint64_t slot = append({Entry::Shape::Instance, archivedClass});
    const std::size_t first = references_.size();
    references_.resize(first + elements.size());
    std::size_t at = first;
    for (const Value& element : elements) {
      auto index = encode(element, depth + 1, error);
      if (!index) return std::nullopt;
      references_[at++] = *index;
    }
    finishContainer(slot, first, elements.size());
    return slot;
  }

  std::optional<std::uint64_t> encodeDictionary(const Dictionary& dictionary, int depth,
                                                ErrorPtr* error) {
    const std::uint64_t slot = append({Entry::Shape::Instance, ArchivedClass::Dictionary});
    const std::size_t first = references_.size();
    references_.resize(first + 2 * dictionary.size());
    std::size_t at = first;
    for (const auto& entry : dictionary) {
      auto index = encode(entry.first, depth + 1, error);
      if (!index) return std::nullopt;
      references_[at++] = *index;
    }
    for (const auto& entry : dictionary) {
      auto index = encode(entry.second, depth + 1, error);
      if (!index) return std::nullopt;
      references_[at++] = *index;
    }
    finishContainer(slot, first, dictionary.size());
    return slot;
  }

  void finishContainer(std::uint64_t slot, std::size_t first, std::size_t count) {
    const std::uint64_t classIndex = classEntry(entries_[slot].archivedClass);
    Entry& entry = entries_[slot];
    entry.classIndex = static_cast<std::uint32_t>(classIndex);
    entry.first = static_cast<std::uint32_t>(first);
    entry.count = static_cast<std::uint32_t>(count);
  }

  // ----- writing the property list

  // Each object as the property-list writer writes a Value of its shape: an instance is a
  // dictionary {"$class": UID, "NS.…": …} whose keys sort "$class" first.
  BinaryPlistWriter::Ref write(const Entry& entry) {
    using Ref = BinaryPlistWriter::Ref;
    switch (entry.shape) {
      case Entry::Shape::Number:
        if (entry.value->isBoolean()) return out_.boolean(entry.value->boolValue());
        if (entry.value->isInteger()) return out_.integer(entry.value->integerValue());
        return out_.real(entry.value->doubleValue());
      case Entry::Shape::String:
        // The table holds each string once, so only a string spelled like one of the
        // layout's can equal another string of the list.
        return isLayoutString(*entry.text) ? layoutString(*entry.text)
                                           : out_.distinctString(*entry.text);
      case Entry::Shape::ClassEntry:
        return writeClassEntry(kClassNames[static_cast<std::size_t>(entry.archivedClass)]);
      case Entry::Shape::Instance:
        break;
    }
    std::array<Ref, 3> keys{layoutString("$class")};
    std::array<Ref, 3> values{out_.uid(entry.classIndex)};
    std::size_t fields = 1;
    auto field = [&](std::string_view key, auto writeValue) {
      keys[fields] = layoutString(key);
      values[fields] = writeValue();
      ++fields;
    };
    switch (entry.archivedClass) {
      case ArchivedClass::Null:
        break;
      case ArchivedClass::Date:
        field("NS.time",
              [&] { return out_.real(entry.value->asDate()->timeIntervalSinceReferenceDate()); });
        break;
      case ArchivedClass::Data:
        field("NS.data", [&] { return out_.data(*entry.value->asData()); });
        break;
      case ArchivedClass::Array:
      case ArchivedClass::Set:
        field("NS.objects", [&] { return writeUIDs(entry.first, entry.count); });
        break;
      case ArchivedClass::Dictionary:
        field("NS.keys", [&] { return writeUIDs(entry.first, entry.count); });
        field("NS.objects", [&] { return writeUIDs(entry.first + entry.count, entry.count); });
        break;
    }
    return out_.dictionary(std::span(keys).first(fields), std::span(values).first(fields));
  }

  // A string of the layout, written once, or shared with an equal string of the table.
  BinaryPlistWriter::Ref layoutString(std::string_view text) {
    assert(isLayoutString(text));
    return out_.string(text);
  }

  // An array of the UIDs of count objects listed from first in references_.
  BinaryPlistWriter::Ref writeUIDs(std::size_t first, std::size_t count) {
    uids_.clear();
    for (std::size_t i = first; i < first + count; ++i) uids_.push_back(out_.uid(references_[i]));
    return out_.array(uids_);
  }

  // {"$classes": [name, "NSObject"], "$classname": name}
  BinaryPlistWriter::Ref writeClassEntry(std::string_view name) {
    using Ref = BinaryPlistWriter::Ref;
    const Ref classesKey = layoutString("$classes");
    const Ref names[] = {layoutString(name), layoutString("NSObject")};
    const Ref classes = out_.array(names);
    const Ref classNameKey = layoutString("$classname");
    const Ref className = layoutString(name);
    const Ref keys[] = {classesKey, classNameKey};
    const Ref values[] = {classes, className};
    return out_.dictionary(keys, values);
  }

  std::vector<Entry> entries_{Entry{Entry::Shape::String, {}, 0, nullptr, &nullMarkerText()}};
  std::vector<std::uint64_t> references_;
  // Views of strings inside the value being archived, which outlives the writer.
  StringTable<std::uint64_t> strings_;
  struct SeenString {
    const std::string* text = nullptr;
    std::uint64_t index = 0;
  };
  std::array<SeenString, 64> seenStrings_{};
  std::size_t stringBytes_ = 0;
  std::uint64_t classIndexes_[kArchivedClassCount] = {};  // 0 until written
  std::size_t encoded_ = 0;
  BinaryPlistWriter out_;
  std::vector<BinaryPlistWriter::Ref> uids_;
};

[[noreturn]] void fail(const std::string& reason) {
  throw Exception(NSInvalidUnarchiveOperationException,
                  "*** -[NSKeyedUnarchiver decodeObject]: " + reason);
}

// Decodes the archive's objects straight from the property list's document: references,
// instances and lists are read as nodes, and only the values decoded are built.
class ArchiveReader {
 public:
  using Node = PlistDocument::Node;
  using Kind = PlistDocument::Kind;

  ArchiveReader(const PlistDocument& document, std::span<const Node> objects)
      : document_(document), objects_(objects), decoded_(objects.size()) {
    if (objects_.empty() || !isText(objects_[0], kNullMarker)) {
      fail("the object table does not start with $null");
    }
  }

  // The object a UID refers to, decoded. Limits apply to the tree as it comes out, with
  // shared objects repeated, so that whatever is read here can be archived again.
  Value decodeReference(Node reference, int depth) {
    std::size_t index = indexOf(reference);
    reachDepth(depth);
    if (index == 0) {
      countExpanded(1);
      return Value();
    }
    Decoded& object = decoded_[index];
    if (object.state == State::InProgress) {
      fail("object " + std::to_string(index) + " contains itself");
    }
    if (object.state == State::Pending) decodeObject(index, depth);
    // A finished object counts again, and as deep as it reaches from here.
    reachDepth(depth + object.height);
    countExpanded(object.size);
    return object.value;
  }

 private:
  enum class State { Pending, InProgress, Done };

  bool isText(Node node, std::string_view text) const {
    const Value* value = document_.scalar(node);
    return value && value->isString() && *value->asString() == text;
  }

  // The value under key of a dictionary node, when it is a scalar.
  const Value* scalarAt(Node instance, std::string_view key) const {
    auto node = document_.find(instance, key);
    return node ? document_.scalar(*node) : nullptr;
  }

  // A reference is a UID, or a dictionary whose only key "CF$UID" holds an integer.
  std::size_t indexOf(Node reference) const {
    std::int64_t index = 0;
    if (document_.kind(reference) == Kind::UID) {
      index = static_cast<std::int64_t>(document_.uid(reference));
    } else {
      const Value* number = scalarAt(reference, kUidKey);
      if (!number || !number->isInteger() || document_.distinctKeyCount(reference) != 1) {
        fail("malformed object reference " + excerpt(document_.value(reference).description()));
      }
      index = number->integerValue();
    }
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
    decoded_[index].state = State::InProgress;
    std::size_t expandedBefore = expanded_;
    int deepestBefore = deepest_;
    deepest_ = depth;
    countExpanded(1);
    Value value = decodeRaw(objects_[index], depth);
    Decoded& object = decoded_[index];  // decoding others leaves the table in place
    object.value = std::move(value);
    object.size = expanded_ - expandedBefore;
    object.height = deepest_ - depth;
    expanded_ = expandedBefore;  // the caller counts the object's whole size
    deepest_ = std::max(deepestBefore, deepest_);
    object.state = State::Done;
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

  Value decodeRaw(Node raw, int depth) {
    switch (document_.kind(raw)) {
      case Kind::UID:
      case Kind::Dictionary:
        return decodeInstance(raw, depth);
      case Kind::Array:
        fail("an entry of type NSArray is not an object");
      case Kind::Scalar:
        break;
    }
    const Value& value = *document_.scalar(raw);
    switch (value.type()) {
      case Value::Type::Boolean:
      case Value::Type::Integer:
      case Value::Type::Real:
      case Value::Type::Data:
      case Value::Type::Date:
        return value;
      case Value::Type::String:
        return checkedString(value);
      default:
        fail("an entry of type " + value.className() + " is not an object");
    }
  }

  // Strings must be what the archiver writes: UTF-8 without NUL characters.
  static const Value& checkedString(const Value& text) {
    const std::string& value = *text.asString();
    if (!isValidUTF8(value)) fail("a string is not UTF-8");
    if (value.find('\0') != std::string::npos) fail("a string contains a NUL character");
    return text;
  }

  // The name is looked up once per class entry, which every instance of the class shares.
  const std::string& classNameOf(Node instance) {
    auto classReference = document_.find(instance, "$class");
    if (!classReference) fail("an object has no $class");
    std::size_t index = indexOf(*classReference);
    if (decoded_[index].className) return *decoded_[index].className;
    const Value* name = scalarAt(objects_[index], "$classname");
    if (!name || !name->isString()) fail("a $class entry has no $classname");
    decoded_[index].className = name->asString();
    return *name->asString();
  }

  Value decodeInstance(Node instance, int depth) {
    const std::string& className = classNameOf(instance);
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
      const Value* time = scalarAt(instance, "NS.time");
      if (!time || !time->isNumber()) fail("NSDate without NS.time");
      return Value(Date::fromReferenceDate(time->doubleValue()));
    }
    if (className == "NSData" || className == "NSMutableData") {
      const Value* bytes = scalarAt(instance, "NS.data");
      if (!bytes || !bytes->isData()) fail(className + " without NS.data");
      return *bytes;
    }
    if (className == "NSString" || className == "NSMutableString") {
      const Value* text = scalarAt(instance, "NS.string");
      if (!text || !text->isString()) fail(className + " without NS.string");
      return checkedString(*text);
    }
    if (className == "NSNull") return Value();
    fail("cannot decode object of class (" + excerpt(className) + ")");
  }

  Array decodeList(Node instance, const char* key, int depth) {
    const std::size_t base = pending_.size();
    decodeListOnto(instance, key, depth);
    Array decoded(std::make_move_iterator(pending_.begin() + base),
                  std::make_move_iterator(pending_.end()));
    pending_.resize(base);
    return decoded;
  }

  // Decodes the list under key onto pending_, after what lies there already.
  void decodeListOnto(Node instance, const char* key, int depth) {
    auto references = document_.find(instance, key);
    if (!references || document_.kind(*references) != Kind::Array) {
      fail(std::string("an object has no ") + key + " array");
    }
    const std::span<const Node> elements = document_.elements(*references);
    pending_.reserve(pending_.size() + elements.size());
    for (Node reference : elements) pending_.push_back(decodeReference(reference, depth + 1));
  }

  // The keys and objects are decoded onto pending_ (keys first) and moved into place; the
  // archiver writes keys in order, so each entry goes in at the end.
  Value decodeDictionary(Node instance, int depth) {
    const std::size_t base = pending_.size();
    decodeListOnto(instance, "NS.keys", depth);
    const std::size_t count = pending_.size() - base;
    decodeListOnto(instance, "NS.objects", depth);
    if (pending_.size() - base != 2 * count) {
      fail("a dictionary has more keys than objects or fewer");
    }
    Dictionary dictionary;
    for (std::size_t i = base; i < base + count; ++i) {
      // A repeated key keeps its first spelling and its last object.
      dictionary.insert_or_assign(dictionary.end(), std::move(pending_[i]),
                                  std::move(pending_[i + count]));
    }
    pending_.resize(base);
    return Value(std::move(dictionary));
  }

  const PlistDocument& document_;
  std::span<const Node> objects_;
  // What is known of each object of the table, together for locality.
  struct Decoded {
    Value value;
    const std::string* className = nullptr;  // of a class entry, once looked up
    std::size_t size = 0;                    // objects it expands to
    int height = 0;                          // levels it reaches below itself
    State state = State::Pending;
  };
  std::vector<Decoded> decoded_;
  // Values decoded for the containers being decoded, innermost last.
  std::vector<Value> pending_;
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
  return writer.finish(rootIndex);
}

Value KeyedUnarchiver::unarchiveObjectWithData(const Data& data) {
  using Kind = PlistDocument::Kind;
  ErrorPtr parseError;
  auto document = readPlistDocument(data, &parseError);
  if (!document) {
    fail("incomprehensible archive: " +
         (parseError ? parseError->localizedDescription() : std::string("not a property list")));
  }
  // A UID reads as the dictionary {"CF$UID": n}, and fails below as one.
  const PlistDocument::Node archive = document->root();
  if (document->kind(archive) != Kind::Dictionary && document->kind(archive) != Kind::UID) {
    fail("incomprehensible archive: not a dictionary");
  }
  auto archiver = document->find(archive, "$archiver");
  const Value* archiverName = archiver ? document->scalar(*archiver) : nullptr;
  if (!archiverName || !(*archiverName == Value(kArchiverName))) {
    fail("incomprehensible archive: archiver " +
         excerpt((archiver ? document->value(*archiver) : Value()).description()) + " is not " +
         kArchiverName);
  }
  auto version = document->find(archive, "$version");
  const Value* versionNumber = version ? document->scalar(*version) : nullptr;
  if (!versionNumber || !versionNumber->isNumber()) {
    fail("incomprehensible archive: no $version");
  }
  auto objects = document->find(archive, "$objects");
  if (!objects || document->kind(*objects) != Kind::Array) {
    fail("incomprehensible archive: no $objects array");
  }
  auto top = document->find(archive, "$top");
  auto root = top ? document->find(*top, "root") : std::nullopt;
  if (!root) fail("incomprehensible archive: no root in $top");
  ArchiveReader reader(*document, document->elements(*objects));
  return reader.decodeReference(*root, 0);
}

}  // namespace pnx
