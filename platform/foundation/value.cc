#include "platform/foundation/value.h"

#include <charconv>
#include <cmath>
#include <functional>
#include <limits>
#include <ostream>
#include <string_view>
#include <type_traits>

namespace pnx {

namespace {

// Ordering of the type families; numbers of every kind form one family.
enum class Family { Null, Number, String, Date, Data, Array, Dictionary, Set, Object };

Family familyOf(Value::Type type) {
  switch (type) {
    case Value::Type::Null:
      return Family::Null;
    case Value::Type::Boolean:
    case Value::Type::Integer:
    case Value::Type::Real:
      return Family::Number;
    case Value::Type::String:
      return Family::String;
    case Value::Type::Date:
      return Family::Date;
    case Value::Type::Data:
      return Family::Data;
    case Value::Type::Array:
      return Family::Array;
    case Value::Type::Dictionary:
      return Family::Dictionary;
    case Value::Type::Set:
      return Family::Set;
    case Value::Type::Object:
      return Family::Object;
  }
  return Family::Null;
}

template <class T>
int threeWay(const T& a, const T& b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

// Reals ordered totally: NaN equals NaN and sorts after every other number.
int compareReals(double a, double b) {
  const bool aNaN = std::isnan(a), bNaN = std::isnan(b);
  if (aNaN || bNaN) return aNaN == bNaN ? 0 : (aNaN ? 1 : -1);
  return threeWay(a, b);
}

// Exact comparison of an int64 with a double: no rounding of the integer to a double,
// so INT64_MAX and 9223372036854775807.0 (which is 2^63) compare as different.
int compareIntegerToReal(std::int64_t i, double d) {
  if (std::isnan(d)) return -1;
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (d >= kTwoTo63) return -1;
  if (d < -kTwoTo63) return 1;
  const double whole = std::trunc(d);  // within [-2^63, 2^63): converts exactly
  const auto truncated = static_cast<std::int64_t>(whole);
  if (i != truncated) return threeWay(i, truncated);
  const double fraction = d - whole;  // exact for doubles
  return fraction > 0 ? -1 : (fraction < 0 ? 1 : 0);
}

void hashCombine(std::size_t& seed, std::size_t value) {
  seed ^= value + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2);
}

std::size_t hashInteger(std::int64_t i) {
  return std::hash<std::int64_t>()(i);
}

// A real that equals some int64 hashes as that integer, so 5.0 and 5 agree.
std::size_t hashReal(double d) {
  if (std::isnan(d)) return 0x7ff8dead;
  if (d == std::trunc(d) && d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
    return hashInteger(static_cast<std::int64_t>(d));
  }
  return std::hash<double>()(d);
}

// Family-specific seeds keep, say, an empty array and an empty set apart.
std::size_t seedFor(Family family) {
  return 0x51ed27 * (static_cast<std::size_t>(family) + 1);
}

template <class Range>
int compareSequences(const Range& a, const Range& b) {
  auto ia = a.begin(), ib = b.begin();
  for (; ia != a.end() && ib != b.end(); ++ia, ++ib) {
    if (int c = ia->compare(*ib)) return c;
  }
  if (ia == a.end()) return ib == b.end() ? 0 : -1;
  return 1;
}

int compareDictionaries(const Dictionary& a, const Dictionary& b) {
  auto ia = a.begin(), ib = b.begin();
  for (; ia != a.end() && ib != b.end(); ++ia, ++ib) {
    if (int c = ia->first.compare(ib->first)) return c;
    if (int c = ia->second.compare(ib->second)) return c;
  }
  if (ia == a.end()) return ib == b.end() ? 0 : -1;
  return 1;
}

// Objects are equal exactly when isEqual says so. Unequal objects are ordered by hash,
// then by class name and description so the order is stable between runs, and finally
// by address.
int compareObjects(const ObjectPtr& a, const ObjectPtr& b) {
  if (a == b) return 0;
  if (a->isEqual(*b)) return 0;
  if (int c = threeWay(a->hash(), b->hash())) return c;
  if (int c = a->className().compare(b->className())) return c < 0 ? -1 : 1;
  if (int c = a->description().compare(b->description())) return c < 0 ? -1 : 1;
  return std::less<const Object*>()(a.get(), b.get()) ? -1 : 1;
}

constexpr char kHexDigits[] = "0123456789abcdef";

void appendHex(std::string& out, const std::uint8_t* bytes, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    out += kHexDigits[bytes[i] >> 4];
    out += kHexDigits[bytes[i] & 0xf];
  }
}

bool isBareWordCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || c == '.' || c == ':' || c == '/' || c == '-';
}

std::string quotedIfNeeded(const std::string& s) {
  bool bare = !s.empty();
  for (char c : s) bare = bare && isBareWordCharacter(c);
  if (bare) return s;
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
    }
  }
  out += '"';
  return out;
}

}  // namespace

std::string formatReal(double d) {
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d > 0 ? "inf" : "-inf";
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
  return std::string(buffer, result.ptr);
}

// Writes descriptions; a friend of Value so it can walk the variant directly.
struct ValueDescriber {
  static constexpr std::string_view kIndentStep = "    ";

  // A value inside a container, whose line starts at `indent`.
  static void describeNested(const Value& value, const std::string& indent, std::string& out) {
    switch (value.type()) {
      case Value::Type::Null:
        out += "<null>";
        return;
      case Value::Type::String:
        out += quotedIfNeeded(*value.asString());
        return;
      case Value::Type::Array:
        describeItems(*value.asArray(), "(", ")", indent, out);
        return;
      case Value::Type::Set:
        describeItems(*value.asSet(), "{(", ")}", indent, out);
        return;
      case Value::Type::Dictionary:
        describeDictionary(*value.asDictionary(), indent, out);
        return;
      default:
        out += describeScalar(value);
    }
  }

  template <class Range>
  static void describeItems(const Range& items, std::string_view open, std::string_view close,
                            const std::string& indent, std::string& out) {
    const std::string inner = indent + std::string(kIndentStep);
    out += open;
    out += '\n';
    bool first = true;
    for (const Value& item : items) {
      if (!first) out += ",\n";
      first = false;
      out += inner;
      describeNested(item, inner, out);
    }
    if (!first) out += '\n';
    out += indent;
    out += close;
  }

  static void describeDictionary(const Dictionary& dict, const std::string& indent,
                                 std::string& out) {
    const std::string inner = indent + std::string(kIndentStep);
    out += "{\n";
    for (const auto& [key, item] : dict) {
      out += inner;
      describeNested(key, inner, out);
      out += " = ";
      describeNested(item, inner, out);
      out += ";\n";
    }
    out += indent;
    out += '}';
  }

  static std::string describeData(const Data& data) {
    std::string out = "{length = " + std::to_string(data.size()) + ", bytes = 0x";
    if (data.size() <= 24) {
      appendHex(out, data.data(), data.size());
    } else {
      appendHex(out, data.data(), 16);
      out += " ... ";
      appendHex(out, data.data() + data.size() - 8, 8);
    }
    out += '}';
    return out;
  }

  // Everything that prints the same at top level and inside a container.
  static std::string describeScalar(const Value& value) {
    switch (value.type()) {
      case Value::Type::Boolean:
        return value.boolValue() ? "1" : "0";
      case Value::Type::Integer:
        return std::to_string(std::get<std::int64_t>(value.v_));
      case Value::Type::Real:
        return formatReal(std::get<double>(value.v_));
      case Value::Type::Date:
        return value.asDate()->description();
      case Value::Type::Data:
        return describeData(*value.asData());
      case Value::Type::Object:
        return (*value.asObject())->description();
      default:
        return {};
    }
  }
};

Value::Value(unsigned long i) : Value(static_cast<unsigned long long>(i)) {}

Value::Value(unsigned long long i) {
  if (i > static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max())) {
    v_ = static_cast<double>(i);
  } else {
    v_ = static_cast<std::int64_t>(i);
  }
}

Value::Value(const char* s) {
  if (s) v_ = std::make_shared<const std::string>(s);
}
Value::Value(std::string s) : v_(std::make_shared<const std::string>(std::move(s))) {}
Value::Value(std::string_view s) : v_(std::make_shared<const std::string>(s)) {}
Value::Value(pnx::Data d) : v_(std::make_shared<const pnx::Data>(std::move(d))) {}
Value::Value(pnx::Array a) : v_(std::make_shared<const pnx::Array>(std::move(a))) {}
Value::Value(pnx::Dictionary d) : v_(std::make_shared<const pnx::Dictionary>(std::move(d))) {}
Value::Value(pnx::Set s) : v_(std::make_shared<const pnx::Set>(std::move(s))) {}
Value::Value(ObjectPtr o) {
  if (o) v_ = std::move(o);
}

Value Value::dict(std::initializer_list<std::pair<std::string_view, Value>> entries) {
  pnx::Dictionary d;
  for (const auto& [key, value] : entries) d.insert_or_assign(Value(key), value);
  return Value(std::move(d));
}

Value Value::array(std::initializer_list<Value> items) {
  return Value(pnx::Array(items));
}

std::string Value::className() const {
  switch (type()) {
    case Type::Null:
      return "NSNull";
    case Type::Boolean:
    case Type::Integer:
    case Type::Real:
      return "NSNumber";
    case Type::String:
      return "NSString";
    case Type::Date:
      return "NSDate";
    case Type::Data:
      return "NSData";
    case Type::Array:
      return "NSArray";
    case Type::Dictionary:
      return "NSDictionary";
    case Type::Set:
      return "NSSet";
    case Type::Object:
      return std::get<ObjectPtr>(v_)->className();
  }
  return "NSNull";
}

const std::string* Value::asString() const {
  auto p = std::get_if<std::shared_ptr<const std::string>>(&v_);
  return p ? p->get() : nullptr;
}
const pnx::Date* Value::asDate() const {
  return std::get_if<pnx::Date>(&v_);
}
const pnx::Data* Value::asData() const {
  auto p = std::get_if<std::shared_ptr<const pnx::Data>>(&v_);
  return p ? p->get() : nullptr;
}
const pnx::Array* Value::asArray() const {
  auto p = std::get_if<std::shared_ptr<const pnx::Array>>(&v_);
  return p ? p->get() : nullptr;
}
const pnx::Dictionary* Value::asDictionary() const {
  auto p = std::get_if<std::shared_ptr<const pnx::Dictionary>>(&v_);
  return p ? p->get() : nullptr;
}
const pnx::Set* Value::asSet() const {
  auto p = std::get_if<std::shared_ptr<const pnx::Set>>(&v_);
  return p ? p->get() : nullptr;
}
const ObjectPtr* Value::asObject() const {
  return std::get_if<ObjectPtr>(&v_);
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::Boolean:
      return std::get<bool>(v_);
    case Type::Integer:
      return std::get<std::int64_t>(v_) != 0;
    case Type::Real:
      return std::get<double>(v_) != 0;
    default:
      return false;
  }
}

std::int64_t Value::integerValue() const {
  switch (type()) {
    case Type::Boolean:
      return std::get<bool>(v_) ? 1 : 0;
    case Type::Integer:
      return std::get<std::int64_t>(v_);
    case Type::Real: {
      const double d = std::get<double>(v_);
      if (std::isnan(d)) return 0;
      if (d >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
      if (d < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
      return static_cast<std::int64_t>(d);
    }
    default:
      return 0;
  }
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::Boolean:
      return std::get<bool>(v_) ? 1.0 : 0.0;
    case Type::Integer:
      return static_cast<double>(std::get<std::int64_t>(v_));
    case Type::Real:
      return std::get<double>(v_);
    default:
      return 0;
  }
}

namespace {
const Value& nullValue() {
  static const Value kNull;
  return kNull;
}
}  // namespace

const Value& Value::operator[](std::string_view key) const {
  if (!isDictionary()) return nullValue();
  return get(Value(key));
}

const Value& Value::get(const Value& key) const {
  const pnx::Dictionary* dict = asDictionary();
  if (!dict) return nullValue();
  auto it = dict->find(key);
  return it == dict->end() ? nullValue() : it->second;
}

bool Value::contains(const Value& key) const {
  if (const pnx::Dictionary* dict = asDictionary()) return dict->count(key) != 0;
  if (const pnx::Set* set = asSet()) return set->count(key) != 0;
  return false;
}

std::size_t Value::size() const {
  switch (type()) {
    case Type::String:
      return asString()->size();
    case Type::Data:
      return asData()->size();
    case Type::Array:
      return asArray()->size();
    case Type::Dictionary:
      return asDictionary()->size();
    case Type::Set:
      return asSet()->size();
    default:
      return 0;
  }
}

std::string Value::description() const {
  switch (type()) {
    case Type::Null:
      return "(null)";
    case Type::String:
      return *asString();
    default: {
      std::string out;
      ValueDescriber::describeNested(*this, std::string(), out);
      return out;
    }
  }
}

std::size_t Value::hash() const {
  const Family family = familyOf(type());
  std::size_t h = seedFor(family);
  switch (type()) {
    case Type::Null:
      return h;
    case Type::Boolean:
    case Type::Integer:
      return hashInteger(integerValue());
    case Type::Real:
      return hashReal(std::get<double>(v_));
    case Type::String:
      return std::hash<std::string_view>()(*asString());
    case Type::Date:
      return hashReal(asDate()->timeIntervalSince1970()) ^ h;
    case Type::Data: {
      const pnx::Data& data = *asData();
      return std::hash<std::string_view>()(
                 std::string_view(reinterpret_cast<const char*>(data.data()), data.size())) ^
             h;
    }
    case Type::Array:
      for (const Value& item : *asArray()) hashCombine(h, item.hash());
      return h;
    case Type::Dictionary:
      for (const auto& [key, item] : *asDictionary()) {
        hashCombine(h, key.hash());
        hashCombine(h, item.hash());
      }
      return h;
    case Type::Set:
      for (const Value& item : *asSet()) hashCombine(h, item.hash());
      return h;
    case Type::Object:
      return std::get<ObjectPtr>(v_)->hash();
  }
  return h;
}

// Copies of one container share its storage, and are equal without a walk.
bool Value::sharesStorageWith(const Value& other) const {
  if (v_.index() != other.v_.index()) return false;
  return std::visit(
      [&other](const auto& mine) {
        using T = std::decay_t<decltype(mine)>;
        if constexpr (std::is_same_v<T, std::shared_ptr<const std::string>> ||
                      std::is_same_v<T, std::shared_ptr<const pnx::Data>> ||
                      std::is_same_v<T, std::shared_ptr<const pnx::Array>> ||
                      std::is_same_v<T, std::shared_ptr<const pnx::Dictionary>> ||
                      std::is_same_v<T, std::shared_ptr<const pnx::Set>>) {
          return mine == std::get<T>(other.v_);
        } else {
          return false;
        }
      },
      v_);
}

int Value::compare(const Value& other) const {
  const Family mine = familyOf(type()), theirs = familyOf(other.type());
  if (mine != theirs) return mine < theirs ? -1 : 1;
  if (sharesStorageWith(other)) return 0;
  switch (mine) {
    case Family::Null:
      return 0;
    case Family::Number: {
      const bool realA = isReal(), realB = other.isReal();
      if (realA && realB) return compareReals(std::get<double>(v_), std::get<double>(other.v_));
      if (realA) return -compareIntegerToReal(other.integerValue(), std::get<double>(v_));
      if (realB) return compareIntegerToReal(integerValue(), std::get<double>(other.v_));
      return threeWay(integerValue(), other.integerValue());
    }
    case Family::String: {
      const int c = asString()->compare(*other.asString());
      return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    case Family::Date:
      return compareReals(asDate()->timeIntervalSince1970(),
                          other.asDate()->timeIntervalSince1970());
    case Family::Data:
      return threeWay(*asData(), *other.asData());
    case Family::Array:
      return compareSequences(*asArray(), *other.asArray());
    case Family::Dictionary:
      return compareDictionaries(*asDictionary(), *other.asDictionary());
    case Family::Set:
      return compareSequences(*asSet(), *other.asSet());
    case Family::Object:
      return compareObjects(std::get<ObjectPtr>(v_), std::get<ObjectPtr>(other.v_));
  }
  return 0;
}

std::ostream& operator<<(std::ostream& out, const Value& value) {
  return out << value.description();
}

}  // namespace pnx
