// Value: the platform's property-list values (null, boolean, integer, real, string,
// date, data, array, dictionary, set) plus any platform Object (error, exception, URL).
//
// Value semantics with shared data: copying is cheap (containers, strings and data are
// held by shared pointer to immutable storage), so a Value can be passed and stored
// freely. To change a container, copy it out, change the copy, and assign it back.
//
// Numbers compare as the platform's numbers do: a boolean, an integer and a real are
// all numbers, and equal when their numeric values are equal (5 == 5.0, true == 1).
// Equality, ordering and hashing agree with each other, so equal records collapse
// in a Set and Dictionary lookup works across number kinds.
//
// Thread-safety: a Value is immutable; distinct Value objects may be used from any
// thread, sharing storage is safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/foundation/date.h"
#include "platform/foundation/export.h"
#include "platform/foundation/object.h"

namespace pnx {

class Value;

struct PNX_EXPORT ValueLess {
  bool operator()(const Value& a, const Value& b) const;
};

using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;
using Dictionary = std::map<Value, Value, ValueLess>;
using Set = std::set<Value, ValueLess>;

class PNX_EXPORT Value {
 public:
  enum class Type {
    Null,
    Boolean,
    Integer,
    Real,
    String,
    Date,
    Data,
    Array,
    Dictionary,
    Set,
    Object
  };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  Value(int i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned i) : v_(static_cast<std::int64_t>(i)) {}
  // Values above INT64_MAX become reals, as the platform's JSON reader does.
  Value(unsigned long i);
  Value(unsigned long long i);
  Value(double d) : v_(d) {}
  Value(float f) : v_(static_cast<double>(f)) {}
  Value(const char* s);
  Value(std::string s);
  Value(std::string_view s);
  Value(pnx::Date d) : v_(d) {}
  Value(pnx::Data d);
  Value(pnx::Array a);
  Value(pnx::Dictionary d);
  Value(pnx::Set s);
  Value(ObjectPtr o);
  // Builds a dictionary from string keys: Value::dict({{"a", 1}, {"b", "x"}}).
  static Value dict(std::initializer_list<std::pair<std::string_view, Value>> entries);
  static Value array(std::initializer_list<Value> items);

  Type type() const { return static_cast<Type>(v_.index()); }
  // The platform's class name of the value: "NSNull", "NSNumber", "NSString", "NSDate",
  // "NSData", "NSArray", "NSDictionary", "NSSet", or the object's own class name.
  std::string className() const;

  bool isNull() const { return type() == Type::Null; }
  bool isBoolean() const { return type() == Type::Boolean; }
  bool isInteger() const { return type() == Type::Integer; }
  bool isReal() const { return type() == Type::Real; }
  bool isNumber() const { return isBoolean() || isInteger() || isReal(); }
  bool isString() const { return type() == Type::String; }
  bool isDate() const { return type() == Type::Date; }
  bool isData() const { return type() == Type::Data; }
  bool isArray() const { return type() == Type::Array; }
  bool isDictionary() const { return type() == Type::Dictionary; }
  bool isSet() const { return type() == Type::Set; }
  bool isObject() const { return type() == Type::Object; }

  // Typed views: a pointer to the held value, or nullptr when the Value is of another type.
  const std::string* asString() const;
  const pnx::Date* asDate() const;
  const pnx::Data* asData() const;
  const pnx::Array* asArray() const;
  const pnx::Dictionary* asDictionary() const;
  const pnx::Set* asSet() const;
  const ObjectPtr* asObject() const;
  template <class T>
  std::shared_ptr<const T> asObjectOf() const {
    auto o = asObject();
    return o ? std::dynamic_pointer_cast<const T>(*o) : nullptr;
  }

  // Numeric readings of a number (0 / false for anything else). Reals truncate toward zero
  // and saturate at the int64 range.
  bool boolValue() const;
  std::int64_t integerValue() const;
  double doubleValue() const;

  // Dictionary lookup; a null Value when this is not a dictionary or the key is missing.
  const Value& operator[](std::string_view key) const;
  const Value& get(const Value& key) const;
  bool contains(const Value& key) const;
  // Element count of an array, dictionary, set, string (bytes) or data; 0 otherwise.
  std::size_t size() const;

  // The platform's description, as "%@" prints it: strings as themselves; containers in
  // the indented old-style property-list shape; a top-level null as "(null)".
  std::string description() const;

  std::size_t hash() const;
  // Total order consistent with ==: by type family, then by value.
  int compare(const Value& other) const;
  friend bool operator==(const Value& a, const Value& b) { return a.compare(b) == 0; }
  friend bool operator<(const Value& a, const Value& b) { return a.compare(b) < 0; }
  friend bool operator>(const Value& a, const Value& b) { return a.compare(b) > 0; }
  friend bool operator<=(const Value& a, const Value& b) { return a.compare(b) <= 0; }
  friend bool operator>=(const Value& a, const Value& b) { return a.compare(b) >= 0; }

 private:
  friend struct ValueDescriber;
  bool sharesStorageWith(const Value& other) const;
  std::variant<std::monostate, bool, std::int64_t, double, std::shared_ptr<const std::string>,
               pnx::Date, std::shared_ptr<const pnx::Data>, std::shared_ptr<const pnx::Array>,
               std::shared_ptr<const pnx::Dictionary>, std::shared_ptr<const pnx::Set>, ObjectPtr>
      v_;
};

// The platform's text for a real: shortest round-trip digits, integral values without a
// fraction ("5", "0.1", "1e+300"), "nan" and "inf"/"-inf" for the special values.
PNX_EXPORT std::string formatReal(double d);

inline bool ValueLess::operator()(const Value& a, const Value& b) const {
  return a.compare(b) < 0;
}

// Writes the description; lets test frameworks and streams print Values readably.
PNX_EXPORT std::ostream& operator<<(std::ostream& out, const Value& value);

}  // namespace pnx

template <>
struct std::hash<pnx::Value> {
  std::size_t operator()(const pnx::Value& v) const { return v.hash(); }
};
