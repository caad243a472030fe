#include "platform/foundation/binary_plist_writer.h"

#include <algorithm>
#include <bit>

#include "platform/foundation/utf8.h"

namespace pnx {

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

int byteCount(std::uint64_t value) {
  if (value <= 0xff) return 1;
  if (value <= 0xffff) return 2;
  if (value <= 0xffffffffULL) return 4;
  return 8;
}

std::uint8_t* putBigEndian(std::uint8_t* at, std::uint64_t value, int width) {
  for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
    *at++ = static_cast<std::uint8_t>(value >> shift);
  }
  return at;
}

void appendBigEndian(Data& out, std::uint64_t value, int width) {
  for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

void encodeInteger(Data& out, std::int64_t value) {
  const int width = value < 0 ? 8 : byteCount(static_cast<std::uint64_t>(value));
  const int power = width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3;
  out.push_back(static_cast<std::uint8_t>(0x10 | power));
  appendBigEndian(out, static_cast<std::uint64_t>(value), width);
}

// A kind nibble with its count; a count of 15 or more follows as an integer object.
void encodeMarker(Data& out, std::uint8_t kind, std::uint64_t count) {
  if (count < 15) {
    out.push_back(static_cast<std::uint8_t>(kind << 4 | count));
    return;
  }
  out.push_back(static_cast<std::uint8_t>(kind << 4 | 0x0f));
  encodeInteger(out, static_cast<std::int64_t>(count));
}

void encodeDouble(Data& out, std::uint8_t marker, double value) {
  out.push_back(marker);
  appendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
}

}  // namespace

BinaryPlistWriter::Ref BinaryPlistWriter::addScalar(std::size_t at) {
  objects_.push_back({at, scalars_.size() - at, 0});
  return objects_.size() - 1;
}

void BinaryPlistWriter::reserve(std::size_t objects, std::size_t references,
                                std::size_t scalarBytes) {
  objects_.reserve(objects);
  references_.reserve(references);
  scalars_.reserve(scalarBytes);
}

BinaryPlistWriter::Ref BinaryPlistWriter::boolean(bool value) {
  const std::size_t at = scalars_.size();
  scalars_.push_back(value ? 0x09 : 0x08);
  return addScalar(at);
}

BinaryPlistWriter::Ref BinaryPlistWriter::integer(std::int64_t value) {
  const std::size_t at = scalars_.size();
  encodeInteger(scalars_, value);
  return addScalar(at);
}

BinaryPlistWriter::Ref BinaryPlistWriter::real(double value) {
  const std::size_t at = scalars_.size();
  encodeDouble(scalars_, 0x23, value);
  return addScalar(at);
}

BinaryPlistWriter::Ref BinaryPlistWriter::date(double secondsSinceReferenceDate) {
  const std::size_t at = scalars_.size();
  encodeDouble(scalars_, 0x33, secondsSinceReferenceDate);
  return addScalar(at);
}

BinaryPlistWriter::Ref BinaryPlistWriter::data(const Data& bytes) {
  const std::size_t at = scalars_.size();
  encodeMarker(scalars_, 0x4, bytes.size());
  scalars_.insert(scalars_.end(), bytes.begin(), bytes.end());
  return addScalar(at);
}

BinaryPlistWriter::Ref BinaryPlistWriter::string(std::string_view text) {
  auto [ref, added] = strings_.tryEmplace(text, objects_.size());
  if (!added) return ref;
  return distinctString(text);
}

BinaryPlistWriter::Ref BinaryPlistWriter::distinctString(std::string_view text) {
  const std::size_t at = scalars_.size();
  const bool ascii = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) {
    encodeMarker(scalars_, 0x5, text.size());
    scalars_.insert(scalars_.end(), text.begin(), text.end());
  } else {
    const std::u16string units = utf16FromUTF8(text);
    encodeMarker(scalars_, 0x6, units.size());
    for (char16_t unit : units) appendBigEndian(scalars_, unit, 2);
  }
  return addScalar(at);
}

BinaryPlistWriter::Ref BinaryPlistWriter::uid(std::uint64_t index) {
  Ref* dense = nullptr;
  if (index < kDenseUIDs) {
    if (index >= denseUIDs_.size())
      denseUIDs_.resize(std::max<std::size_t>(index + 1, 2 * denseUIDs_.size()));
    dense = &denseUIDs_[index];
    if (*dense != 0) return *dense - 1;
  } else if (auto found = sparseUIDs_.find(index); found != sparseUIDs_.end()) {
    return found->second;
  }
  const std::size_t at = scalars_.size();
  const int width = byteCount(index);
  scalars_.push_back(static_cast<std::uint8_t>(0x80 | (width - 1)));
  appendBigEndian(scalars_, index, width);
  const Ref ref = addScalar(at);
  if (dense) {
    *dense = ref + 1;
  } else {
    sparseUIDs_.emplace(index, ref);
  }
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::array(std::span<const Ref> elements) {
  objects_.push_back({references_.size(), elements.size(), 0xa});
  references_.insert(references_.end(), elements.begin(), elements.end());
  return objects_.size() - 1;
}

BinaryPlistWriter::Ref BinaryPlistWriter::dictionary(std::span<const Ref> keys,
                                                     std::span<const Ref> values) {
  objects_.push_back({references_.size(), keys.size() + values.size(), 0xd});
  references_.insert(references_.end(), keys.begin(), keys.end());
  references_.insert(references_.end(), values.begin(), values.end());
  return objects_.size() - 1;
}

Data BinaryPlistWriter::finish(Ref top) const {
  const int referenceSize = byteCount(objects_.size() - 1);
  // Sizes first, so that the list is written in place: objects, offset table, trailer.
  auto markerSize = [](std::uint64_t count) { return count < 15 ? 1 : 2 + byteCount(count); };
  std::uint64_t tableAt = kBinaryMagic.size() + scalars_.size();
  for (const Object& object : objects_) {
    if (object.containerKind == 0) continue;
    const std::size_t count = object.containerKind == 0xd ? object.length / 2 : object.length;
    tableAt += markerSize(count) + object.length * referenceSize;
  }
  const int offsetSize = byteCount(tableAt);
  constexpr std::size_t kTrailerSize = 32;
  Data out(tableAt + objects_.size() * offsetSize + kTrailerSize);
  std::uint8_t* at = std::copy(kBinaryMagic.begin(), kBinaryMagic.end(), out.data());
  std::uint8_t* offsets = out.data() + tableAt;
  // Scalars lie in scalars_ in the order of their objects: each run of them between two
  // containers is copied at once.
  const std::uint8_t* scalarsAt = scalars_.data();
  std::size_t run = 0;
  for (const Object& object : objects_) {
    offsets = putBigEndian(offsets, at + run - out.data(), offsetSize);
    if (object.containerKind == 0) {
      run += object.length;
      continue;
    }
    at = std::copy_n(scalarsAt, run, at);
    scalarsAt += run;
    run = 0;
    const std::size_t count = object.containerKind == 0xd ? object.length / 2 : object.length;
    if (count < 15) {
      *at++ = static_cast<std::uint8_t>(object.containerKind << 4 | count);
    } else {
      const int width = byteCount(count);
      *at++ = static_cast<std::uint8_t>(object.containerKind << 4 | 0x0f);
      *at++ = static_cast<std::uint8_t>(0x10 | (width == 1   ? 0
                                                : width == 2 ? 1
                                                : width == 4 ? 2
                                                             : 3));
      at = putBigEndian(at, count, width);
    }
    const Ref* references = references_.data() + object.at;
    for (std::size_t i = 0; i < object.length; ++i) {
      at = putBigEndian(at, references[i], referenceSize);
    }
  }
  std::copy_n(scalarsAt, run, at);
  // The trailer: unused bytes and the sort version, the sizes, the counts and places.
  at = std::fill_n(offsets, 6, 0);
  *at++ = static_cast<std::uint8_t>(offsetSize);
  *at++ = static_cast<std::uint8_t>(referenceSize);
  at = putBigEndian(at, objects_.size(), 8);
  at = putBigEndian(at, top, 8);
  putBigEndian(at, tableAt, 8);
  return out;
}

}  // namespace pnx
