// Writes a binary property list object by object, for writers that walk their own data
// (a Value, a keyed archive's object table) without first building a Value of the list.
//
// Objects are numbered in the order they are added, children before their container; each
// call returns the new object's reference. Scalars are encoded at once; containers keep
// their references until finish, when the size of a reference is known. Equal strings and
// equal UIDs become one object; every other call adds an object. Linear in the size of the
// list.
//
// Thread-safety: one writer per thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/foundation/string_table.h"
#include "platform/foundation/value.h"

namespace pnx {

class BinaryPlistWriter {
 public:
  using Ref = std::uint64_t;

  Ref boolean(bool value);
  // Negative integers take eight bytes, others the fewest of 1, 2, 4 and 8.
  Ref integer(std::int64_t value);
  Ref real(double value);
  Ref date(double secondsSinceReferenceDate);
  Ref data(const Data& bytes);
  // ASCII as it is, anything else as UTF-16. The caller has checked that the text is UTF-8
  // without NUL characters, and keeps it alive until finish (the writer keeps a view).
  Ref string(std::string_view text);
  // A string that the caller knows to differ from every other string of the list: written
  // without looking for an equal one.
  Ref distinctString(std::string_view text);
  Ref uid(std::uint64_t index);
  Ref array(std::span<const Ref> elements);
  Ref dictionary(std::span<const Ref> keys, std::span<const Ref> values);

  std::size_t objectCount() const { return objects_.size(); }
  // Room for a list of about this many objects, references (of containers) and bytes of
  // scalars, so that writing it does not keep growing the tables.
  void reserve(std::size_t objects, std::size_t references, std::size_t scalarBytes);
  // The whole list with top as its top object.
  Data finish(Ref top) const;

 private:
  // A scalar's encoding lies in scalars_, a container's references in references_.
  // 16 bytes, as there is one per object.
  struct Object {
    std::uint64_t at;
    std::uint64_t length : 56;
    std::uint64_t containerKind : 8;  // 0 for a scalar, 0xa array, 0xd dictionary
  };

  // The scalar whose encoding starts at `at` in scalars_.
  Ref addScalar(std::size_t at);

  std::vector<Object> objects_;
  Data scalars_;
  std::vector<Ref> references_;
  StringTable<Ref> strings_;
  // UIDs below kDenseUIDs are found by index (keyed archives number their objects densely),
  // larger ones through the map.
  static constexpr std::uint64_t kDenseUIDs = 1 << 20;
  std::vector<Ref> denseUIDs_;  // reference + 1, or 0 when not written yet
  std::unordered_map<std::uint64_t, Ref> sparseUIDs_;
};

}  // namespace pnx
