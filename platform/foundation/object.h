// Object: the root of the platform's reference types that can sit inside a Value
// (errors, exceptions, URLs). Immutable once built, shared by pointer, compared
// through isEqual. Thread-safe to share because nothing mutates after construction.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/foundation/export.h"

namespace pnx {

class PNX_EXPORT Object {
 public:
  virtual ~Object() = default;
  // The platform class name, used by descriptions and type checks in messages.
  virtual std::string className() const = 0;
  // Text printed for "%@".
  virtual std::string description() const = 0;
  // Identity by default; value classes override.
  virtual bool isEqual(const Object& other) const { return this == &other; }
  virtual std::size_t hash() const { return std::hash<const void*>()(this); }
};

using ObjectPtr = std::shared_ptr<const Object>;

}  // namespace pnx
