#include "platform/foundation/plist.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <plist/plist.h>

#include "platform/foundation/binary_plist_writer.h"
#include "platform/foundation/format.h"
#include "platform/foundation/plist_document.h"
#include "platform/foundation/utf8.h"

namespace pnx {

namespace {

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
  *error = Error::make(NSCocoaErrorDomain, NSPropertyListReadCorruptError, Value(std::move(info)));
}

void setWriteError(ErrorPtr* error, const std::string& what) {
  if (!error) return;
  *error = Error::withDescription(NSCocoaErrorDomain, NSPropertyListWriteInvalidError,
                                  "Property list invalid for format (" + what + ")");
}

// ---------------------------------------------------------------------------------------
// Binary property lists are read by our own code: libplist 2.2 refuses empty UTF-16
// strings, keeps dates in 32-bit seconds, and hands one-byte strings out as raw bytes.

// Reads a binary property list in two passes. The first walks the object graph without
// building anything: every offset and reference must lie inside the data, there may be no
// cycles, containers nest at most kMaxNestingDepth deep, and copying shared objects out
// must stay bounded. The second reads the objects into a PlistDocument, each object once
// (PropertyList::parse turns the document into a Value).
//
// Objects read as the platform reads them. One-byte strings are in its 8-bit encoding,
// which we take as Latin-1: a byte from 0x80 up becomes that code point, so the Value is
// UTF-8 whatever the bytes. Two-byte strings are UTF-16 big-endian; an unpaired surrogate,
// which UTF-8 cannot carry, becomes U+FFFD. Dates are doubles of seconds since 2001-01-01
// and are kept exactly. Sets read as arrays, as the writer writes them.
class BinaryReader {
 public:
  explicit BinaryReader(std::string_view bytes) : bytes_(bytes) {}

  std::optional<PlistDocument> read() {
    if (!readTrailer()) return fail("damaged binary property list trailer");
    std::string problem = checkShape();
    if (!problem.empty()) return fail(std::move(problem));
    if (!build()) return std::nullopt;
    return std::move(document_);
  }

  const std::string& failure() const { return failure_; }

 private:
  // An object's marker split into its nibbles, with the count that may follow it.
  struct Header {
    unsigned kind = 0;
    unsigned info = 0;
    std::uint64_t count = 0;  // the low nibble, or the extended count after the marker
    std::uint64_t payloadAt = 0;
  };

  enum class State : std::uint8_t { Unvisited, Visiting, Done };
  // What the shape pass learns about an object, small as there is one per object reached.
  // Lists are below 4 GiB and counts are capped at kMaxExpandedBytes, so 32 bits hold the
  // places, the counts and the expansion (kept at most one object's above the cap).
  struct Info {
    State state = State::Unvisited;
    bool isContainer = false;
    std::uint16_t depth = 0;  // at most kMaxNestingDepth + 1
    std::uint32_t childrenAt = 0;
    std::uint32_t childCount = 0;
    std::uint32_t expandedBytes = 0;
  };

  std::nullopt_t fail(std::string what) {
    failure_ = std::move(what);
    return std::nullopt;
  }

  // Empty when the object graph is acceptable, else what is wrong. An iterative post-order
  // walk: each stack entry is an object and the next child to visit. Only the objects
  // reached get an Info (and later a Value); the count the trailer declares costs the
  // writer as little as one offset byte each, so it gets no more than a slot number each.
  std::string checkShape() {
    slotOf_.assign(objectCount_, 0);
    std::vector<Info> infos;
    infos.reserve(std::min<std::uint64_t>(objectCount_, 1 << 16));
    auto slotFor = [&](std::uint64_t object) -> std::size_t {
      std::uint32_t& slot = slotOf_[object];
      if (slot == 0) {
        infos.emplace_back();
        slot = static_cast<std::uint32_t>(infos.size());
      }
      return slot - 1;
    };
    struct Step {
      std::uint64_t object;
      std::size_t slot;
      std::uint64_t nextChild;
    };
    std::vector<Step> stack{{topObject_, slotFor(topObject_), 0}};
    infos[stack.back().slot].state = State::Visiting;
    while (!stack.empty()) {
      Step& step = stack.back();
      if (step.nextChild == 0 && !measureObject(step.object, infos[step.slot])) {
        return "binary property list object out of bounds";
      }
      if (step.nextChild < infos[step.slot].childCount) {
        std::uint64_t child;
        const std::uint64_t at = infos[step.slot].childrenAt + step.nextChild * referenceSize_;
        if (!readReference(at, child)) return "binary property list reference out of bounds";
        ++step.nextChild;
        const std::size_t parentSlot = step.slot;
        const std::size_t childSlot = slotFor(child);  // may move the infos
        if (infos[childSlot].state == State::Visiting) {
          return "binary property list refers to itself";
        }
        if (infos[childSlot].state == State::Unvisited) {
          infos[childSlot].state = State::Visiting;
          stack.push_back({child, childSlot, 0});
        } else {
          absorbChild(infos[parentSlot], infos[childSlot]);
        }
        continue;
      }
      const std::size_t slot = step.slot;
      Info& info = infos[slot];
      if (info.isContainer) ++info.depth;
      if (info.depth > kMaxNestingDepth) return "nesting deeper than 512 levels";
      if (info.expandedBytes > kMaxExpandedBytes) return "binary property list expands too far";
      info.state = State::Done;
      stack.pop_back();
      if (!stack.empty()) absorbChild(infos[stack.back().slot], infos[slot]);
    }
    reachedCount_ = infos.size();
    return {};
  }

  // Folds a finished child into its parent.
  static void absorbChild(Info& parent, const Info& child) {
    parent.depth = std::max(parent.depth, child.depth);
    parent.expandedBytes = static_cast<std::uint32_t>(std::min<std::uint64_t>(
        std::uint64_t{parent.expandedBytes} + child.expandedBytes, kMaxExpandedBytes + 1));
  }

  // Whether an object is a container, where its references are, and how many bytes it
  // stands for when copied out.
  bool measureObject(std::uint64_t object, Info& info) const {
    Header header;
    if (!readHeader(object, header)) return false;
    const std::uint64_t count = std::min(header.count, kMaxExpandedBytes);
    constexpr std::uint64_t kNodeOverhead = 64;
    // header.payloadAt lies within the objects; the products below stay under 2^32.
    const std::uint64_t room = tableAt_ - header.payloadAt;
    std::uint64_t expandedBytes = kNodeOverhead;
    switch (header.kind) {
      case 0x4:
        expandedBytes += count;
        break;
      case 0x5:
      case 0x6: {
        const std::uint64_t unit = header.kind == 0x6 ? 2 : 1;
        if (unit * count > room) return false;
        expandedBytes += unit * count;
        break;
      }
      case 0xa:
      case 0xc:
      case 0xd: {
        const std::uint64_t references = header.kind == 0xd ? 2 : 1;
        if (count * references * referenceSize_ > room) return false;
        info.isContainer = true;
        info.childrenAt = static_cast<std::uint32_t>(header.payloadAt);
        info.childCount = static_cast<std::uint32_t>(count * references);
        break;
      }
      default:
        break;
    }
    info.expandedBytes = static_cast<std::uint32_t>(expandedBytes);
    return true;
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

  // Objects lie between the magic and the offset table.
  bool readHeader(std::uint64_t object, Header& header) const {
    std::uint64_t at;
    if (!readUnsigned(tableAt_ + object * offsetSize_, offsetSize_, at)) return false;
    if (at < kBinaryMagic.size() || at >= tableAt_) return false;
    const auto marker = static_cast<unsigned char>(bytes_[at]);
    header.kind = marker >> 4;
    header.info = marker & 0xf;
    header.count = header.info;
    header.payloadAt = at + 1;
    const unsigned kind = header.kind;
    const bool countFollows = header.info == 0xf && (kind == 0x4 || kind == 0x5 || kind == 0x6 ||
                                                     kind == 0xa || kind == 0xc || kind == 0xd);
    if (countFollows && !readCount(header.payloadAt, header.count)) return false;
    return header.payloadAt <= tableAt_;
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

  // The payload of `count` units of `unit` bytes at `at`, when it ends before the table.
  std::optional<std::string_view> payload(std::uint64_t at, std::uint64_t count,
                                          std::uint64_t unit = 1) const {
    if (at > tableAt_ || count > (tableAt_ - at) / unit) return std::nullopt;
    return bytes_.substr(at, count * unit);
  }

  static std::uint64_t bigEndian(std::string_view bytes) {
    std::uint64_t out = 0;
    for (char byte : bytes) out = (out << 8) | static_cast<unsigned char>(byte);
    return out;
  }

  // ----- second pass: the document

  // Objects are read recursively (safe once the depth is known), in the order they are
  // referred to, each once; the top object is the root.
  bool build() {
    nodes_.resize(reachedCount_);
    document_.reserve(reachedCount_);
    auto root = readObject(topObject_);
    if (!root) return false;
    document_.setRoot(*root);
    return true;
  }

  // Objects the shape pass reached have a slot; the build follows the same references.
  std::optional<PlistDocument::Node> readObject(std::uint64_t object) {
    if (slotOf_[object] == 0) return fail("binary property list object out of bounds");
    std::optional<PlistDocument::Node>& built = nodes_[slotOf_[object] - 1];
    if (built) return built;
    Header header;
    if (!readHeader(object, header)) return fail("binary property list object out of bounds");
    auto node = readNode(header);
    // nodes_ never grows while building, so `built` stays valid across the recursion.
    if (node) built = node;
    return node;
  }

  std::optional<PlistDocument::Node> readNode(const Header& header) {
    switch (header.kind) {
      case 0x8:
        if (header.info > 0x3) break;
        return readUID(header);
      case 0xa:
      case 0xc:
        return readArray(header);
      case 0xd:
        return readDictionary(header);
      default:
        break;
    }
    auto value = readPayload(header);
    if (!value) return std::nullopt;
    return document_.addScalar(std::move(*value));
  }

  std::optional<PlistDocument::Node> readUID(const Header& header) {
    const auto bytes = payload(header.payloadAt, header.info + 1);
    if (!bytes) return fail("binary property list object out of bounds");
    return document_.addUID(bigEndian(*bytes));
  }

  // The children are gathered on top of the pending ones of the containers being read.
  // The shape pass has checked the references and bounded the count.
  std::optional<PlistDocument::Node> readArray(const Header& header) {
    const std::size_t base = pending_.size();
    pending_.resize(base + header.count);
    for (std::uint64_t i = 0; i < header.count; ++i) {
      auto item = readChild(header, i);
      if (!item) return std::nullopt;
      pending_[base + i] = *item;
    }
    const auto node = document_.addArray(std::span(pending_).subspan(base));
    pending_.resize(base);
    return node;
  }

  // Keys first, then the values in the same order; every key is a string.
  std::optional<PlistDocument::Node> readDictionary(const Header& header) {
    const std::size_t base = pending_.size();
    pending_.resize(base + 2 * header.count);
    for (std::uint64_t i = 0; i < header.count; ++i) {
      auto key = readChild(header, i);
      if (!key) return std::nullopt;
      const Value* text = document_.scalar(*key);
      if (!text || !text->isString()) {
        return fail("binary property list dictionary key is not a string");
      }
      auto value = readChild(header, header.count + i);
      if (!value) return std::nullopt;
      pending_[base + i] = *key;
      pending_[base + header.count + i] = *value;
    }
    const std::span<const PlistDocument::Node> children = std::span(pending_).subspan(base);
    const auto node =
        document_.addDictionary(children.first(header.count), children.subspan(header.count));
    pending_.resize(base);
    return node;
  }

  std::optional<PlistDocument::Node> readChild(const Header& header, std::uint64_t index) {
    std::uint64_t child;
    if (!readReference(header.payloadAt + index * referenceSize_, child)) {
      return fail("binary property list reference out of bounds");
    }
    return readObject(child);
  }

  std::optional<Value> readPayload(const Header& header) {
    switch (header.kind) {
      case 0x0:
        if (header.info == 0x8 || header.info == 0x9) return Value(header.info == 0x9);
        break;
      case 0x1:
        return readInteger(header);
      case 0x2:
        if (header.info == 0x2 || header.info == 0x3) return readReal(header);
        break;
      case 0x3:
        if (header.info == 0x3) return readDate(header);
        break;
      case 0x4:
        return readData(header);
      case 0x5:
        return readLatin1(header);
      case 0x6:
        return readUTF16(header);
      default:
        break;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    return fail(std::string("binary property list object of unknown kind 0x") + kHex[header.kind] +
                kHex[header.info]);
  }

  // One, two and four bytes are unsigned, eight bytes signed. Sixteen bytes hold either
  // a value above INT64_MAX (becoming a real, as the JSON reader does) or a negative one.
  std::optional<Value> readInteger(const Header& header) {
    if (header.info > 4) return fail("binary property list integer wider than 16 bytes");
    const auto bytes = payload(header.payloadAt, 1ull << header.info);
    if (!bytes) return fail("binary property list object out of bounds");
    if (header.info < 4) return Value(static_cast<std::int64_t>(bigEndian(*bytes)));
    const std::uint64_t high = bigEndian(bytes->substr(0, 8));
    const std::uint64_t low = bigEndian(bytes->substr(8));
    if (high == 0) return Value(static_cast<unsigned long long>(low));
    if (high == ~0ull && static_cast<std::int64_t>(low) < 0) {
      return Value(static_cast<std::int64_t>(low));
    }
    return fail("binary property list integer beyond 64 bits");
  }

  std::optional<Value> readReal(const Header& header) {
    const auto bytes = payload(header.payloadAt, header.info == 0x2 ? 4 : 8);
    if (!bytes) return fail("binary property list object out of bounds");
    if (header.info == 0x2) {
      return Value(std::bit_cast<float>(static_cast<std::uint32_t>(bigEndian(*bytes))));
    }
    return Value(std::bit_cast<double>(bigEndian(*bytes)));
  }

  std::optional<Value> readDate(const Header& header) {
    const auto bytes = payload(header.payloadAt, 8);
    if (!bytes) return fail("binary property list object out of bounds");
    return Value(Date::fromReferenceDate(std::bit_cast<double>(bigEndian(*bytes))));
  }

  std::optional<Value> readData(const Header& header) {
    const auto bytes = payload(header.payloadAt, header.count);
    if (!bytes) return fail("binary property list object out of bounds");
    const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes->data());
    return Value(Data(begin, begin + bytes->size()));
  }

  std::optional<Value> readLatin1(const Header& header) {
    const auto bytes = payload(header.payloadAt, header.count);
    if (!bytes) return fail("binary property list object out of bounds");
    if (std::all_of(bytes->begin(), bytes->end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
      return Value(*bytes);
    }
    std::string text;
    text.reserve(bytes->size());
    for (char byte : *bytes) appendUTF8(text, static_cast<unsigned char>(byte));
    return Value(std::move(text));
  }

  std::optional<Value> readUTF16(const Header& header) {
    const auto bytes = payload(header.payloadAt, header.count, 2);
    if (!bytes) return fail("binary property list object out of bounds");
    auto unitAt = [&](std::size_t i) {
      return static_cast<std::uint32_t>(bigEndian(bytes->substr(2 * i, 2)));
    };
    std::string text;
    text.reserve(bytes->size());
    for (std::size_t i = 0; i < header.count; ++i) {
      std::uint32_t code = unitAt(i);
      const bool high = code >= 0xd800 && code <= 0xdbff;
      const bool lowFollows =
          i + 1 < header.count && unitAt(i + 1) >= 0xdc00 && unitAt(i + 1) <= 0xdfff;
      if (high && lowFollows) {
        code = 0x10000 + ((code - 0xd800) << 10) + (unitAt(++i) - 0xdc00);
      } else if (code >= 0xd800 && code <= 0xdfff) {
        code = 0xfffd;
      }
      appendUTF8(text, code);
    }
    return Value(std::move(text));
  }

  std::string_view bytes_;
  std::uint64_t offsetSize_ = 0, referenceSize_ = 0, objectCount_ = 0, topObject_ = 0, tableAt_ = 0;
  std::vector<std::uint32_t> slotOf_;  // per object: 0 if not reached, else slot + 1
  std::size_t reachedCount_ = 0;
  std::vector<std::optional<PlistDocument::Node>> nodes_;  // per slot, its node once read
  std::vector<PlistDocument::Node> pending_;
  PlistDocument document_;
  std::string failure_;
};

// ---------------------------------------------------------------------------------------
// Binary property lists are written by our own code too, in one pass over the Value and
// linear in its size (libplist's binary writer slows down quadratically on lists of tens
// of thousands of objects, which a keyed archive of a long delivery queue reaches).
//
// Objects are numbered children first. Equal strings and equal UIDs become one object.
// Sets are written as arrays, and a dictionary {"CF$UID": n} (n below 2^32) as the UID n,
// a keyed archive's reference.

class BinaryWriter {
 public:
  std::optional<Data> write(const Value& root) {
    auto top = add(root, 0);
    if (!top) return std::nullopt;
    return out_.finish(*top);
  }

  const std::string& failure() const { return failure_; }

 private:
  using Ref = BinaryPlistWriter::Ref;

  std::nullopt_t fail(std::string what) {
    failure_ = std::move(what);
    return std::nullopt;
  }

  std::optional<Ref> add(const Value& value, std::size_t depth) {
    switch (value.type()) {
      case Value::Type::Boolean:
        return out_.boolean(value.boolValue());
      case Value::Type::Integer:
        return out_.integer(value.integerValue());
      case Value::Type::Real:
        return out_.real(value.doubleValue());
      case Value::Type::Date:
        return out_.date(value.asDate()->timeIntervalSinceReferenceDate());
      case Value::Type::String:
        return string(*value.asString());
      case Value::Type::Data:
        return out_.data(*value.asData());
      case Value::Type::Array:
        return array(*value.asArray(), depth + 1);
      case Value::Type::Set:
        return array(*value.asSet(), depth + 1);
      case Value::Type::Dictionary:
        return dictionary(*value.asDictionary(), depth + 1);
      default:
        return fail("property lists cannot contain objects of type '" + value.className() + "'");
    }
  }

  // Readers end strings at a NUL, and text that is not UTF-8 has no UTF-16 form: both are
  // refused rather than written with characters lost. The writer keeps views of strings
  // inside the Value, which outlives it.
  std::optional<Ref> string(const std::string& text) {
    if (text.find('\0') != std::string::npos) return fail("string contains a NUL character");
    if (!isValidUTF8(text)) return fail("string is not UTF-8");
    return out_.string(text);
  }

  template <class Range>
  std::optional<Ref> array(const Range& items, std::size_t depth) {
    if (depth > kMaxNestingDepth) return fail("nesting deeper than 512 levels");
    std::vector<Ref> references;
    references.reserve(items.size());
    for (const Value& item : items) {
      auto ref = add(item, depth);
      if (!ref) return std::nullopt;
      references.push_back(*ref);
    }
    return out_.array(references);
  }

  std::optional<Ref> dictionary(const Dictionary& dict, std::size_t depth) {
    if (depth > kMaxNestingDepth) return fail("nesting deeper than 512 levels");
    if (auto uid = uidOf(dict)) return out_.uid(*uid);
    std::vector<Ref> references(2 * dict.size());
    std::size_t i = 0;
    for (const auto& [key, value] : dict) {
      if (!key.isString()) return fail("dictionary keys must be strings");
      auto keyRef = string(*key.asString());
      if (!keyRef) return std::nullopt;
      auto valueRef = add(value, depth);
      if (!valueRef) return std::nullopt;
      references[i] = *keyRef;
      references[dict.size() + i] = *valueRef;
      ++i;
    }
    const std::span<const Ref> all(references);
    return out_.dictionary(all.first(dict.size()), all.subspan(dict.size()));
  }

  // The n of a dictionary {"CF$UID": n} that stands for a UID.
  static std::optional<std::uint64_t> uidOf(const Dictionary& dict) {
    if (dict.size() != 1) return std::nullopt;
    const auto& [key, value] = *dict.begin();
    if (!key.isString() || *key.asString() != kUIDKey || !value.isInteger() ||
        value.integerValue() < 0 ||
        value.integerValue() > std::numeric_limits<std::uint32_t>::max()) {
      return std::nullopt;
    }
    return static_cast<std::uint64_t>(value.integerValue());
  }

  BinaryPlistWriter out_;
  std::string failure_;
};

// ---------------------------------------------------------------------------------------
// XML property lists are read by libplist, after checks for what it mishandles: its reader
// and the tree's destructor recurse once per nesting level, and it reads dates loosely
// (missing parts become 1970, bad fields roll over) into 32-bit seconds since 2001,
// saturating beyond them.

bool startsWithAt(std::string_view text, std::size_t at, std::string_view prefix) {
  return at <= text.size() && text.substr(at, prefix.size()) == prefix;
}

std::string_view trimmedXMLSpace(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

// Empty when libplist reads the text of a <date> element exactly: the form
// yyyy-MM-ddTHH:mm:ssZ, a real date, within 32-bit seconds of 2001-01-01.
std::string xmlDateProblem(std::string_view text) {
  text = trimmedXMLSpace(text);
  const bool canonical = text.size() == 20 && text.back() == 'Z';
  const std::optional<Date> date = canonical ? Date::fromISO8601(text) : std::nullopt;
  const std::string quoted = "\"" + excerpt(text, 40) + "\"";
  if (!date) return "XML date " + quoted + " is not of the form yyyy-MM-ddTHH:mm:ssZ";
  const double seconds = date->timeIntervalSinceReferenceDate();
  if (seconds < std::numeric_limits<std::int32_t>::min() ||
      seconds > std::numeric_limits<std::int32_t>::max()) {
    return "XML date " + quoted +
           " is outside the readable range 1932-12-13T20:45:52Z to 2069-01-19T03:14:07Z";
  }
  return {};
}

// Empty when libplist may read the XML text, else what is wrong: <array> and <dict>
// elements nested deeper than kMaxNestingDepth, or a <date> that it would read wrongly
// (a date's text must be plain, followed by its end tag). Comments, CDATA sections,
// declarations and processing instructions are skipped.
std::string xmlProblem(std::string_view text) {
  std::size_t depth = 0;
  std::size_t at = text.find('<');
  while (at != std::string_view::npos) {
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
    const std::size_t next = text.find('<', end + closer.size());
    if (closer == ">" && text[at + 1] != '!') {
      const bool closing = text[at + 1] == '/';
      const std::size_t nameAt = at + (closing ? 2 : 1);
      const std::size_t nameEnd = text.find_first_of(" \t\r\n/>", nameAt);
      const std::string_view name = text.substr(nameAt, nameEnd - nameAt);
      const bool selfClosing = text[end - 1] == '/';
      if ((name == "array" || name == "dict") && !selfClosing) {
        if (closing) {
          if (depth > 0) --depth;
        } else if (++depth > kMaxNestingDepth) {
          return "nesting deeper than 512 levels";
        }
      }
      if (name == "date" && !closing) {
        const std::size_t textAt = end + 1;
        const std::string_view content =
            selfClosing ? std::string_view() : text.substr(textAt, next - textAt);
        std::string problem = xmlDateProblem(content);
        if (problem.empty() && !startsWithAt(text, next, "</date>")) {
          problem = "XML date holds more than plain text";
        }
        if (!problem.empty()) return problem;
      }
    }
    at = next;
  }
  return {};
}

// ---------------------------------------------------------------------------------------
// libplist nodes, read from XML, to Values.

// libplist passes text that is not UTF-8 through, and writes a character reference to a
// surrogate (&#xD800;) as its three bytes; both are refused, as the platform's XML reader
// refuses malformed text.
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
        return Value(Date::fromReferenceDate(seconds + microseconds / 1e6));
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
    if (text) return readText(std::string(text, length));
    // Key nodes have no pointer accessor.
    char* copy = nullptr;
    plist_get_key_val(node, &copy);
    if (!copy) return fail("unreadable string");
    std::string key(copy);
    std::free(copy);
    return readText(std::move(key));
  }

  std::optional<Value> readText(std::string text) {
    if (!isValidUTF8(text)) return fail("XML text is not UTF-8");
    return Value(std::move(text));
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
      auto keyValue = readText(key ? key : "");
      std::free(key);
      if (!keyValue) return std::nullopt;
      auto value = read(item, depth);
      if (!value) return std::nullopt;
      dict.insert_or_assign(std::move(*keyValue), std::move(*value));
    }
    return Value(std::move(dict));
  }

  std::string failure_;
};

// ---------------------------------------------------------------------------------------
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

  // libplist takes C strings and, writing binary, drops without failing the bytes that do
  // not convert to UTF-16.
  bool checkText(const std::string& s) {
    if (s.find('\0') != std::string::npos) {
      failure_ = "string contains a NUL character";
    } else if (!isValidUTF8(s)) {
      failure_ = "string is not UTF-8";
    } else {
      return true;
    }
    return false;
  }

  PlistPtr writeString(const std::string& s) {
    if (!checkText(s)) return nullptr;
    return PlistPtr(plist_new_string(s.c_str()));
  }

  PlistPtr writeDate(Date date) {
    const double sinceReference = date.timeIntervalSinceReferenceDate();
    // The fraction never carries into the seconds, so the range check is on whole seconds.
    const double seconds = std::floor(sinceReference);
    const double microseconds = std::min(std::round((sinceReference - seconds) * 1e6), 999999.0);
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
  // UIDs are 32-bit (libplist would cut a larger one short), so larger n stay dictionaries.
  static bool isUIDReference(const Dictionary& dict) {
    if (dict.size() != 1) return false;
    const auto& [key, value] = *dict.begin();
    return key.isString() && *key.asString() == kUIDKey && value.isInteger() &&
           value.integerValue() >= 0 &&
           value.integerValue() <= std::numeric_limits<std::uint32_t>::max();
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
      if (!checkText(*key.asString())) return nullptr;
      PlistPtr item = write(value, depth);
      if (!item) return nullptr;
      plist_dict_set_item(node.get(), key.asString()->c_str(), item.release());
    }
    return node;
  }

  std::string failure_;
};

std::optional<PlistDocument> parseBinary(std::string_view text, ErrorPtr* error) {
  BinaryReader reader(text);
  auto document = reader.read();
  if (!document) setReadError(error, reader.failure());
  return document;
}

std::optional<Value> parseXML(std::string_view text, ErrorPtr* error) {
  const std::string problem = xmlProblem(text);
  if (!problem.empty()) {
    setReadError(error, problem);
    return std::nullopt;
  }
  plist_t root = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &root);
  PlistPtr owner(root);
  if (!root) {
    setReadError(error, "unreadable XML property list");
    return std::nullopt;
  }
  NodeReader reader;
  auto value = reader.read(root);
  if (!value) setReadError(error, reader.failure());
  return value;
}

// Empty when the data may be a property list, else why not.
std::string sizeProblem(const Data& bytes) {
  if (bytes.empty()) return "no property list data";
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    return "property list data too large";
  }
  return {};
}

std::string_view textOf(const Data& bytes) {
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

}  // namespace

std::optional<Value> PropertyList::parse(const Data& bytes, ErrorPtr* error, Format* format) {
  if (std::string problem = sizeProblem(bytes); !problem.empty()) {
    setReadError(error, problem);
    return std::nullopt;
  }
  const std::string_view text = textOf(bytes);
  const bool binary = text.starts_with(kBinaryMagic);
  std::optional<Value> value;
  if (binary) {
    if (auto document = parseBinary(text, error)) value = document->value(document->root());
  } else {
    value = parseXML(text, error);
  }
  if (value && format) *format = binary ? Format::Binary : Format::XML;
  return value;
}

std::optional<PlistDocument> readPlistDocument(const Data& bytes, ErrorPtr* error) {
  if (std::string problem = sizeProblem(bytes); !problem.empty()) {
    setReadError(error, problem);
    return std::nullopt;
  }
  const std::string_view text = textOf(bytes);
  if (text.starts_with(kBinaryMagic)) return parseBinary(text, error);
  auto value = parseXML(text, error);
  if (!value) return std::nullopt;
  return PlistDocument::fromValue(*value);
}

std::optional<Data> PropertyList::serialize(const Value& value, Format format, ErrorPtr* error) {
  if (format == Format::Binary) {
    BinaryWriter writer;
    auto data = writer.write(value);
    if (!data) setWriteError(error, writer.failure());
    return data;
  }
  NodeWriter writer;
  PlistPtr root = writer.write(value);
  if (!root) {
    setWriteError(error, writer.failure());
    return std::nullopt;
  }
  char* out = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root.get(), &out, &length);
  if (!out) {
    setWriteError(error, "the property list could not be written");
    return std::nullopt;
  }
  const auto* begin = reinterpret_cast<const std::uint8_t*>(out);
  Data data(begin, begin + length);
  plist_to_xml_free(out);
  return data;
}

}  // namespace pnx
