#include "platform/plist.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include <plist/plist.h>

namespace pnx {

namespace {

constexpr std::int64_t kReadCorruptErrorCode = 3840;
constexpr std::int64_t kWriteInvalidErrorCode = 3851;
constexpr std::int64_t kFileReadUnknownErrorCode = 256;
constexpr std::int64_t kFileReadNoPermissionErrorCode = 257;
constexpr std::int64_t kFileReadNoSuchFileErrorCode = 260;
constexpr std::size_t kMaxNestingDepth = 512;
// What a binary property list may expand to when its shared references are copied out:
// a few hundred bytes of input must not become gigabytes of nodes.
constexpr std::uint64_t kMaxExpandedBytes = 256ull << 20;

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr const char* kUIDKey = "CF$UID";

struct PlistDeleter {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

void setReadError(ErrorPtr* error, const std::string& detail) {
  if (!error) return;
  Dictionary info;
  info.emplace(
      Value(NSLocalizedDescriptionKey),
      Value("The data couldn\u2019t be read because it isn\u2019t in the correct format."));
  if (!detail.empty()) info.emplace(Value(NSDebugDescriptionErrorKey), Value(detail));
  *error = Error::make(NSCocoaErrorDomain, kReadCorruptErrorCode, Value(std::move(info)));
}

void setWriteError(ErrorPtr* error, const std::string& what) {
  if (!error) return;
  *error = Error::withDescription(NSCocoaErrorDomain, kWriteInvalidErrorCode,
                                  "Property list invalid for format (" + what + ")");
}

// ---------------------------------------------------------------------------------------
// Guards run before libplist sees the bytes: its binary reader recurses once per nesting
// level and copies shared objects once per reference, and its tree is freed recursively,
// so hostile input could exhaust the stack or memory inside the library.

// Walks a binary property list's object graph without building it: checks that every
// offset and reference lies inside the data, that there are no cycles, that containers
// nest at most kMaxNestingDepth deep, and that copying shared objects out stays bounded.
class BinaryShapeCheck {
 public:
  explicit BinaryShapeCheck(std::string_view bytes) : bytes_(bytes) {}

  // Empty when the shape is acceptable, else what is wrong.
  std::string run() {
    if (!readTrailer()) return "damaged binary property list trailer";
    std::vector<Info> infos(objectCount_);
    // Iterative post-order walk: each stack entry is an object and the next child to visit.
    struct Step {
      std::uint64_t object;
      std::uint64_t nextChild;
    };
    std::vector<Step> stack{{topObject_, 0}};
    infos[topObject_].state = State::Visiting;
    while (!stack.empty()) {
      Step& step = stack.back();
      Info& info = infos[step.object];
      if (step.nextChild == 0 && !readObject(step.object, info)) {
        return "binary property list object out of bounds";
      }
      if (step.nextChild < info.childCount) {
        std::uint64_t child;
        if (!readReference(info.childrenAt + step.nextChild * referenceSize_, child)) {
          return "binary property list reference out of bounds";
        }
        ++step.nextChild;
        if (infos[child].state == State::Visiting) return "binary property list refers to itself";
        if (infos[child].state == State::Unvisited) {
          infos[child].state = State::Visiting;
          stack.push_back({child, 0});
        } else if (!absorbChild(info, step.nextChild - 1, infos[child])) {
          return "binary property list key contains a NUL character";
        }
        continue;
      }
      if (info.isContainer) ++info.depth;
      if (info.depth > kMaxNestingDepth) return "nesting deeper than 512 levels";
      if (info.expandedBytes > kMaxExpandedBytes) return "binary property list expands too far";
      info.state = State::Done;
      stack.pop_back();
      if (!stack.empty()) {
        const Step& parent = stack.back();
        if (!absorbChild(infos[parent.object], parent.nextChild - 1, info)) {
          return "binary property list key contains a NUL character";
        }
      }
    }
    return {};
  }

 private:
  enum class State : std::uint8_t { Unvisited, Visiting, Done };
  struct Info {
    State state = State::Unvisited;
    bool isContainer = false;
    bool containsNul = false;    // a string with a NUL character
    std::uint64_t keyCount = 0;  // a dictionary's first keyCount children are its keys
    std::uint64_t childrenAt = 0;
    std::uint64_t childCount = 0;
    std::uint64_t depth = 0;
    std::uint64_t expandedBytes = 0;
  };

  // Folds a finished child into its parent. False for a dictionary key holding a NUL
  // character, which libplist cannot hand out as a key (it asserts).
  static bool absorbChild(Info& parent, std::uint64_t childIndex, const Info& child) {
    parent.depth = std::max(parent.depth, child.depth);
    parent.expandedBytes =
        std::min(parent.expandedBytes + child.expandedBytes, kMaxExpandedBytes + 1);
    return !(childIndex < parent.keyCount && child.containsNul);
  }

  // Big-endian unsigned integer of `width` bytes (1..8) at `at`.
  bool readUnsigned(std::uint64_t at, std::uint64_t width, std::uint64_t& out) const {
    if (width == 0 || width > 8 || at > bytes_.size() || bytes_.size() - at < width) return false;
    out = 0;
    for (std::uint64_t i = 0; i < width; ++i) {
      out = (out << 8) | static_cast<unsigned char>(bytes_[at + i]);
    }
    return true;
  }

  bool readTrailer() {
    constexpr std::size_t kTrailerSize = 32;
    if (bytes_.size() < kBinaryMagic.size() + kTrailerSize) return false;
    const std::uint64_t trailer = bytes_.size() - kTrailerSize;
    std::uint64_t tableAt;
    if (!readUnsigned(trailer + 6, 1, offsetSize_) ||
        !readUnsigned(trailer + 7, 1, referenceSize_) ||
        !readUnsigned(trailer + 8, 8, objectCount_) || !readUnsigned(trailer + 16, 8, topObject_) ||
        !readUnsigned(trailer + 24, 8, tableAt)) {
      return false;
    }
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) {
      return false;
    }
    if (objectCount_ == 0 || objectCount_ > trailer || topObject_ >= objectCount_) return false;
    if (tableAt < kBinaryMagic.size() || tableAt > trailer ||
        (trailer - tableAt) / offsetSize_ < objectCount_) {
      return false;
    }
    tableAt_ = tableAt;
    return true;
  }

  bool readReference(std::uint64_t at, std::uint64_t& object) const {
    return readUnsigned(at, referenceSize_, object) && object < objectCount_;
  }

  // Reads an object's marker: whether it is a container, where its references are,
  // and how many bytes it stands for when copied out.
  bool readObject(std::uint64_t object, Info& info) const {
    std::uint64_t at;
    if (!readUnsigned(tableAt_ + object * offsetSize_, offsetSize_, at)) return false;
    if (at >= tableAt_) return false;
    const auto marker = static_cast<unsigned char>(bytes_[at]);
    const unsigned kind = marker >> 4;
    std::uint64_t count = marker & 0xf;
    std::uint64_t payloadAt = at + 1;
    const bool countFollows = count == 0xf && (kind == 0x4 || kind == 0x5 || kind == 0x6 ||
                                               kind == 0xa || kind == 0xc || kind == 0xd);
    if (countFollows && !readCount(payloadAt, count)) return false;
    if (payloadAt > tableAt_) return false;
    count = std::min(count, kMaxExpandedBytes);
    constexpr std::uint64_t kNodeOverhead = 64;
    info.expandedBytes = kNodeOverhead;
    switch (kind) {
      case 0x4:
        info.expandedBytes += count;
        break;
      case 0x5:
      case 0x6: {
        const std::uint64_t unit = kind == 0x6 ? 2 : 1;
        if (count > (tableAt_ - payloadAt) / unit) return false;
        info.expandedBytes += unit * count;
        info.containsNul = containsNul(payloadAt, count, unit);
        break;
      }
      case 0xa:
      case 0xc:
      case 0xd: {
        const std::uint64_t references = kind == 0xd ? 2 : 1;
        if (count > (tableAt_ - payloadAt) / referenceSize_ / references) return false;
        info.isContainer = true;
        info.childrenAt = payloadAt;
        info.childCount = count * references;
        if (kind == 0xd) info.keyCount = count;
        break;
      }
      default:
        break;
    }
    return true;
  }

  // Whether any of `count` characters of `unit` bytes at `at` is zero.
  bool containsNul(std::uint64_t at, std::uint64_t count, std::uint64_t unit) const {
    for (std::uint64_t i = 0; i < count; ++i) {
      bool zero = true;
      for (std::uint64_t k = 0; k < unit; ++k) zero = zero && bytes_[at + i * unit + k] == '\0';
      if (zero) return true;
    }
    return false;
  }

  // An extended count: an integer object (marker 0x1n, 2^n bytes) after the marker.
  bool readCount(std::uint64_t& at, std::uint64_t& count) const {
    std::uint64_t marker;
    if (!readUnsigned(at, 1, marker) || (marker >> 4) != 0x1 || (marker & 0xf) > 3) return false;
    const std::uint64_t width = 1ull << (marker & 0xf);
    if (!readUnsigned(at + 1, width, count)) return false;
    at += 1 + width;
    return true;
  }

  std::string_view bytes_;
  std::uint64_t offsetSize_ = 0, referenceSize_ = 0, objectCount_ = 0, topObject_ = 0, tableAt_ = 0;
};

bool startsWithAt(std::string_view text, std::size_t at, std::string_view prefix) {
  return text.substr(at, prefix.size()) == prefix;
}

// Deepest nesting of <array> and <dict> elements in XML text; comments, CDATA sections,
// declarations and processing instructions are skipped. Stops counting past the cap.
std::size_t xmlNestingDepth(std::string_view text) {
  std::size_t depth = 0, deepest = 0;
  std::size_t at = text.find('<');
  while (at != std::string_view::npos && deepest <= kMaxNestingDepth) {
    std::string_view closer = ">";
    if (startsWithAt(text, at, "<!--")) {
      closer = "-->";
    } else if (startsWithAt(text, at, "<![CDATA[")) {
      closer = "]]>";
    } else if (startsWithAt(text, at, "<?")) {
      closer = "?>";
    }
    const std::size_t end = text.find(closer, at + 1);
    if (end == std::string_view::npos) break;
    if (closer == ">" && text[at + 1] != '!') {
      const bool closing = text[at + 1] == '/';
      const std::size_t nameAt = at + (closing ? 2 : 1);
      const std::size_t nameEnd = text.find_first_of(" \t\r\n/>", nameAt);
      const std::string_view name = text.substr(nameAt, nameEnd - nameAt);
      const bool selfClosing = text[end - 1] == '/';
      if ((name == "array" || name == "dict") && !selfClosing) {
        if (closing) {
          if (depth > 0) --depth;
        } else {
          deepest = std::max(deepest, ++depth);
        }
      }
    }
    at = text.find('<', end + closer.size());
  }
  return deepest;
}

// ---------------------------------------------------------------------------------------
// libplist nodes to Values.

// libplist 2.2 reads a binary date before 2001 with the fraction's sign dropped:
// -12345.75 comes back as (-12345, +750000). A negative whole part tells the fraction's
// sign; only dates less than a second before 2001-01-01 stay indistinguishable.
double secondsSinceReferenceDate(std::int32_t seconds, std::int32_t microseconds) {
  if (seconds < 0 && microseconds > 0) return seconds - microseconds / 1e6;
  return seconds + microseconds / 1e6;
}

class NodeReader {
 public:
  std::optional<Value> read(plist_t node, std::size_t depth = 0) {
    switch (plist_get_node_type(node)) {
      case PLIST_BOOLEAN: {
        std::uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
      }
      case PLIST_UINT: {
        // libplist keeps every integer as uint64; the bits are the signed value.
        std::uint64_t u = 0;
        plist_get_uint_val(node, &u);
        return Value(static_cast<std::int64_t>(u));
      }
      case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(d);
      }
      case PLIST_STRING:
      case PLIST_KEY:
        return readString(node);
      case PLIST_DATE: {
        std::int32_t seconds = 0, microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        return Value(Date::fromReferenceDate(secondsSinceReferenceDate(seconds, microseconds)));
      }
      case PLIST_DATA: {
        std::uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(node, &length);
        const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
        return Value(bytes ? Data(begin, begin + length) : Data());
      }
      case PLIST_UID: {
        // Shown as the platform shows a keyed archive's references.
        std::uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return Value::dict({{kUIDKey, Value(static_cast<unsigned long long>(uid))}});
      }
      case PLIST_ARRAY:
        return readArray(node, depth + 1);
      case PLIST_DICT:
        return readDictionary(node, depth + 1);
      default:
        return fail("unknown node type");
    }
  }

  const std::string& failure() const { return failure_; }

 private:
  std::nullopt_t fail(std::string what) {
    failure_ = std::move(what);
    return std::nullopt;
  }

  std::optional<Value> readString(plist_t node) {
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    if (text) return Value(std::string_view(text, length));
    // Key nodes have no pointer accessor.
    char* copy = nullptr;
    plist_get_key_val(node, &copy);
    if (!copy) return fail("unreadable string");
    Value value{std::string(copy)};
    std::free(copy);
    return value;
  }

  std::optional<Value> readArray(plist_t node, std::size_t depth) {
    if (depth > kMaxNestingDepth) return fail("nesting deeper than 512 levels");
    Array items;
    items.reserve(plist_array_get_size(node));
    // Indexed access walks the node list from the start each time; the iterator keeps
    // reading a large array linear.
    plist_array_iter iter = nullptr;
    plist_array_new_iter(node, &iter);
    std::unique_ptr<void, decltype(&std::free)> iterOwner(iter, &std::free);
    while (true) {
      plist_t child = nullptr;
      plist_array_next_item(node, iter, &child);
      if (!child) break;
      auto item = read(child, depth);
      if (!item) return std::nullopt;
      items.push_back(std::move(*item));
    }
    return Value(std::move(items));
  }

  std::optional<Value> readDictionary(plist_t node, std::size_t depth) {
    if (depth > kMaxNestingDepth) return fail("nesting deeper than 512 levels");
    Dictionary dict;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(node, &iter);
    std::unique_ptr<void, decltype(&std::free)> iterOwner(iter, &std::free);
    while (true) {
      char* key = nullptr;
      plist_t item = nullptr;
      plist_dict_next_item(node, iter, &key, &item);
      if (!item) {
        std::free(key);
        break;
      }
      std::string keyText = key ? key : "";
      std::free(key);
      auto value = read(item, depth);
      if (!value) return std::nullopt;
      dict.insert_or_assign(Value(std::move(keyText)), std::move(*value));
    }
    return Value(std::move(dict));
  }

  std::string failure_;
};

// ---------------------------------------------------------------------------------------
// Values to libplist nodes.

class NodeWriter {
 public:
  PlistPtr write(const Value& value, std::size_t depth = 0) {
    switch (value.type()) {
      case Value::Type::Boolean:
        return PlistPtr(plist_new_bool(value.boolValue() ? 1 : 0));
      case Value::Type::Integer:
        // Negative values keep their two's complement bits; libplist writes them signed.
        return PlistPtr(plist_new_uint(static_cast<std::uint64_t>(value.integerValue())));
      case Value::Type::Real:
        return PlistPtr(plist_new_real(value.doubleValue()));
      case Value::Type::String:
        return writeString(*value.asString());
      case Value::Type::Date:
        return writeDate(*value.asDate());
      case Value::Type::Data: {
        const Data& data = *value.asData();
        return PlistPtr(plist_new_data(reinterpret_cast<const char*>(data.data()), data.size()));
      }
      case Value::Type::Array:
        return writeItems(*value.asArray(), depth + 1);
      case Value::Type::Set:
        return writeItems(*value.asSet(), depth + 1);
      case Value::Type::Dictionary:
        return writeDictionary(*value.asDictionary(), depth + 1);
      default:
        return fail("property lists cannot contain objects of type '" + value.className() + "'");
    }
  }

  const std::string& failure() const { return failure_; }

 private:
  PlistPtr fail(std::string what) {
    failure_ = std::move(what);
    return nullptr;
  }

  PlistPtr writeString(const std::string& s) {
    if (s.find('\0') != std::string::npos) return fail("string contains a NUL character");
    return PlistPtr(plist_new_string(s.c_str()));
  }

  PlistPtr writeDate(Date date) {
    const double sinceReference = date.timeIntervalSinceReferenceDate();
    double seconds = std::floor(sinceReference);
    double microseconds = std::round((sinceReference - seconds) * 1e6);
    if (microseconds >= 1e6) {
      seconds += 1;
      microseconds -= 1e6;
    }
    if (!(seconds >= std::numeric_limits<std::int32_t>::min() &&
          seconds <= std::numeric_limits<std::int32_t>::max())) {
      return fail("date out of range");
    }
    return PlistPtr(plist_new_date(static_cast<std::int32_t>(seconds),
                                   static_cast<std::int32_t>(microseconds)));
  }

  template <class Range>
  PlistPtr writeItems(const Range& items, std::size_t depth) {
    if (depth > kMaxNestingDepth) return fail("nesting deeper than 512 levels");
    PlistPtr array(plist_new_array());
    for (const Value& item : items) {
      PlistPtr node = write(item, depth);
      if (!node) return nullptr;
      plist_array_append_item(array.get(), node.release());
    }
    return array;
  }

  // A dictionary {"CF$UID": n} is a keyed archive's reference and is written as a UID.
  static bool isUIDReference(const Dictionary& dict) {
    if (dict.size() != 1) return false;
    const auto& [key, value] = *dict.begin();
    return key.isString() && *key.asString() == kUIDKey && value.isInteger() &&
           value.integerValue() >= 0;
  }

  PlistPtr writeDictionary(const Dictionary& dict, std::size_t depth) {
    if (depth > kMaxNestingDepth) return fail("nesting deeper than 512 levels");
    if (isUIDReference(dict)) {
      return PlistPtr(
          plist_new_uid(static_cast<std::uint64_t>(dict.begin()->second.integerValue())));
    }
    PlistPtr node(plist_new_dict());
    for (const auto& [key, value] : dict) {
      if (!key.isString()) return fail("dictionary keys must be strings");
      if (key.asString()->find('\0') != std::string::npos) {
        return fail("string contains a NUL character");
      }
      PlistPtr item = write(value, depth);
      if (!item) return nullptr;
      plist_dict_set_item(node.get(), key.asString()->c_str(), item.release());
    }
    return node;
  }

  std::string failure_;
};

std::string lastPathComponent(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

ErrorPtr fileReadError(const std::string& path, int code) {
  const std::string name = lastPathComponent(path);
  if (code == ENOENT || code == ENOTDIR) {
    return Error::withDescription(
        NSCocoaErrorDomain, kFileReadNoSuchFileErrorCode,
        "The file \u201c" + name + "\u201d couldn\u2019t be opened because there is no such file.",
        path);
  }
  if (code == EACCES || code == EPERM) {
    return Error::withDescription(NSCocoaErrorDomain, kFileReadNoPermissionErrorCode,
                                  "The file \u201c" + name +
                                      "\u201d couldn\u2019t be opened because you don\u2019t "
                                      "have permission to view it.",
                                  path);
  }
  return Error::withDescription(
      NSCocoaErrorDomain, kFileReadUnknownErrorCode,
      "The file \u201c" + name + "\u201d couldn\u2019t be opened (" + std::strerror(code) + ").",
      path);
}

// The whole file, or the errno that stopped the read.
int readWholeFile(const std::string& path, Data& out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int result = 0;
  std::uint8_t buffer[64 * 1024];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      result = errno;
      break;
    }
    if (n == 0) break;
    out.insert(out.end(), buffer, buffer + n);
  }
  ::close(fd);
  return result;
}

}  // namespace

std::optional<Value> PropertyList::parse(const Data& bytes, ErrorPtr* error, Format* format) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (bytes.empty()) {
    setReadError(error, "no property list data");
    return std::nullopt;
  }
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    setReadError(error, "property list data too large");
    return std::nullopt;
  }
  const bool binary = text.starts_with(kBinaryMagic);
  if (binary) {
    const std::string shapeProblem = BinaryShapeCheck(text).run();
    if (!shapeProblem.empty()) {
      setReadError(error, shapeProblem);
      return std::nullopt;
    }
  } else if (xmlNestingDepth(text) > kMaxNestingDepth) {
    setReadError(error, "nesting deeper than 512 levels");
    return std::nullopt;
  }
  plist_t root = nullptr;
  const auto length = static_cast<std::uint32_t>(bytes.size());
  if (binary) {
    plist_from_bin(text.data(), length, &root);
  } else {
    plist_from_xml(text.data(), length, &root);
  }
  PlistPtr owner(root);
  if (!root) {
    setReadError(error,
                 binary ? "unreadable binary property list" : "unreadable XML property list");
    return std::nullopt;
  }
  NodeReader reader;
  auto value = reader.read(root);
  if (!value) {
    setReadError(error, reader.failure());
    return std::nullopt;
  }
  if (format) *format = binary ? Format::Binary : Format::XML;
  return value;
}

std::optional<Data> PropertyList::serialize(const Value& value, Format format, ErrorPtr* error) {
  NodeWriter writer;
  PlistPtr root = writer.write(value);
  if (!root) {
    setWriteError(error, writer.failure());
    return std::nullopt;
  }
  char* out = nullptr;
  std::uint32_t length = 0;
  if (format == Format::Binary) {
    plist_to_bin(root.get(), &out, &length);
  } else {
    plist_to_xml(root.get(), &out, &length);
  }
  if (!out) {
    setWriteError(error, "the property list could not be written");
    return std::nullopt;
  }
  const auto* begin = reinterpret_cast<const std::uint8_t*>(out);
  Data data(begin, begin + length);
  if (format == Format::Binary) {
    plist_to_bin_free(out);
  } else {
    plist_to_xml_free(out);
  }
  return data;
}

std::optional<Value> PropertyList::readFile(const std::string& path, ErrorPtr* error) {
  Data bytes;
  if (int code = readWholeFile(path, bytes)) {
    if (error) *error = fileReadError(path, code);
    return std::nullopt;
  }
  return parse(bytes, error);
}

}  // namespace pnx
