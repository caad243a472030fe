// Keyed archives: Values written in the platform's keyed-archiver layout inside a binary
// property list, so that the application side of the kit reads back the same objects.
//
//   {"$archiver": "NSKeyedArchiver", "$version": 100000,
//    "$top": {"root": UID},
//    "$objects": ["$null", ...]}
//
// Strings and numbers sit in $objects as they are; dates, data, arrays, sets,
// dictionaries and nested nulls are objects whose "$class" UID points at a class entry
// {"$classname": "NSDate", "$classes": ["NSDate", "NSObject"]}. Dates keep NS.time
// (seconds since 2001-01-01), data NS.data, arrays and sets NS.objects, dictionaries
// NS.keys and NS.objects (UIDs, in the same order). A null root is the $null reference.
//
// Unarchiving accepts what this archiver writes plus the platform's other spellings of
// the same objects (mutable classes, inline data, NSString objects) and raises
// pnx::Exception named NSInvalidUnarchiveOperationException for anything else: not a
// property list, another archiver, dangling or malformed UIDs, reference cycles, nesting
// deeper than kMaxDepth, archives that expand beyond kMaxExpandedObjects, unknown classes
// or wrong types. It never loops: every object is decoded once.
//
// Thread-safety: stateless; call from any thread.
#pragma once

#include <cstddef>
#include <optional>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

namespace pnx {

class KeyedArchiver {
 public:
  // The archive of root as a binary property list. Values a keyed archive cannot hold
  // (platform objects such as errors or URLs) give nullopt and *error instead.
  static std::optional<Data> archivedDataWithRootObject(const Value& root,
                                                        ErrorPtr* error = nullptr);
};

class KeyedUnarchiver {
 public:
  static constexpr int kMaxDepth = 256;
  // Objects that may be shared several times in an archive count once per use.
  static constexpr std::size_t kMaxExpandedObjects = 1 << 20;

  // The root object of the archive (null for a null root). Throws pnx::Exception
  // (NSInvalidUnarchiveOperationException) when data is not a valid archive.
  static Value unarchiveObjectWithData(const Data& data);
};

}  // namespace pnx
