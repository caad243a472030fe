#include "platform/foundation/json.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/foundation/format.h"
#include "platform/foundation/utf8.h"

namespace pnx {

namespace {

constexpr std::size_t kMaxNestingDepth = 512;

bool isJSONWhitespace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Line and column (both from 1) of a byte offset.
std::pair<std::size_t, std::size_t> lineAndColumn(std::string_view text, std::size_t offset) {
  std::size_t line = 1, lineStart = 0;
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      lineStart = i + 1;
    }
  }
  return {line, offset - lineStart + 1};
}

// nlohmann's message reads "[json.exception.parse_error.101] parse error at line 1,
// column 4: syntax error while parsing value - unexpected '}'; expected ...": keep the
// part that says what went wrong; our own prefix says where. The part quotes the token
// that was last read, which may be a megabyte of string or number: an excerpt is shown.
std::string whatWentWrong(const std::string& message) {
  std::string_view what = message;
  if (!what.empty() && what.front() == '[') {
    auto end = what.find("] ");
    if (end != std::string_view::npos) what.remove_prefix(end + 2);
  }
  if (what.starts_with("parse error")) {
    auto colon = what.find(": ");
    if (colon != std::string_view::npos) what.remove_prefix(colon + 2);
  }
  if (what.starts_with("syntax error while parsing")) {
    auto dash = what.find(" - ");
    if (dash != std::string_view::npos) what.remove_prefix(dash + 3);
  }
  return excerpt(what, 2 * kExcerptLength);
}

void setReadError(ErrorPtr* error, std::string_view text, std::size_t offset,
                  const std::string& what) {
  if (!error) return;
  if (offset > text.size()) offset = text.size();
  auto [line, column] = lineAndColumn(text, offset);
  *error = Error::withDescription(NSCocoaErrorDomain, NSPropertyListReadCorruptError,
                                  "JSON parse error at line " + std::to_string(line) + ", column " +
                                      std::to_string(column) + " (byte " + std::to_string(offset) +
                                      "): " + what);
}

// Byte offset of the n-th token (from 0) that starts a value or a key. The SAX handler
// counts the same tokens as it goes, and the text before the token it stopped at has
// parsed, so this simple walk finds the spot the handler refused.
std::size_t offsetOfToken(std::string_view text, std::size_t n) {
  std::size_t seen = 0;
  std::size_t i = text.starts_with("\xEF\xBB\xBF") ? 3 : 0;  // nlohmann skips a BOM
  while (i < text.size()) {
    const char c = text[i];
    if (isJSONWhitespace(c) || c == ',' || c == ':' || c == ']' || c == '}') {
      ++i;
      continue;
    }
    if (seen == n) return i;
    ++seen;
    if (c == '"') {
      for (++i; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] == '\\') ++i;
      }
      ++i;
    } else if (c == '[' || c == '{') {
      ++i;
    } else {
      while (i < text.size() && !isJSONWhitespace(text[i]) && text[i] != ',' && text[i] != ']' &&
             text[i] != '}' && text[i] != ':') {
        ++i;
      }
    }
  }
  return text.size();
}

bool isLiteralCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
}

// First byte of the well-formed token whose last byte is at `last`: a string back to its
// opening quote, a number or literal back over its characters, punctuation itself.
std::size_t startOfTokenEndingAt(std::string_view text, std::size_t last) {
  if (last >= text.size()) return last;
  if (text[last] == '"') {
    for (std::size_t i = last; i-- > 0;) {
      if (text[i] != '"') continue;
      std::size_t backslashes = 0;
      while (backslashes < i && text[i - 1 - backslashes] == '\\') ++backslashes;
      if (backslashes % 2 == 0) return i;
    }
    return last;
  }
  std::size_t start = last;
  if (!isLiteralCharacter(text[last])) return start;
  while (start > 0 && isLiteralCharacter(text[start - 1])) --start;
  return start;
}

// Builds Values straight from nlohmann's SAX events.
class ValueBuilder {
 public:
  using json = nlohmann::json;

  explicit ValueBuilder(bool allowFragments) : allowFragments_(allowFragments) {}

  bool null() { return addScalar(Value()); }
  bool boolean(bool b) { return addScalar(Value(b)); }
  bool number_integer(json::number_integer_t i) {
    return addScalar(Value(static_cast<std::int64_t>(i)));
  }
  bool number_unsigned(json::number_unsigned_t u) {
    return addScalar(Value(static_cast<unsigned long long>(u)));
  }
  bool number_float(json::number_float_t d, const json::string_t&) { return addScalar(Value(d)); }
  bool string(json::string_t& s) { return addScalar(Value(std::move(s))); }
  bool binary(json::binary_t&) { return fail("binary values are not JSON"); }

  bool start_object(std::size_t) { return open(true); }
  bool start_array(std::size_t) { return open(false); }
  bool key(json::string_t& k) {
    ++tokens_;
    frames_.back().key = std::move(k);
    return true;
  }
  bool end_object() { return close(Value(std::move(frames_.back().dict))); }
  bool end_array() { return close(Value(std::move(frames_.back().items))); }

  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& ex) {
    what_ = whatWentWrong(ex.what());
    // nlohmann counts the offending token as read, so position - 1 is its last byte.
    lastByteOfError_ = position > 0 ? position - 1 : 0;
    // A well-formed token in the wrong place, or a number out of range, is best shown
    // at its first byte; a malformed one at the byte that broke it.
    misplacedToken_ = ex.id == 406 || (what_.starts_with("unexpected ") &&
                                       !what_.starts_with("unexpected end of input"));
    return false;
  }

  // After sax_parse returns false: where and what.
  bool failedAtToken() const { return failedAtToken_; }
  std::size_t failedToken() const { return tokens_ - 1; }
  std::size_t lastByteOfError() const { return lastByteOfError_; }
  bool misplacedToken() const { return misplacedToken_; }
  const std::string& what() const { return what_; }
  Value takeResult() { return std::move(result_); }

 private:
  struct Frame {
    bool isObject = false;
    Array items;
    Dictionary dict;
    std::string key;
  };

  bool fail(std::string what) {
    failedAtToken_ = true;
    what_ = std::move(what);
    return false;
  }

  bool addScalar(Value v) {
    ++tokens_;
    if (frames_.empty() && !allowFragments_) {
      return fail("JSON text did not start with array or object");
    }
    return add(std::move(v));
  }

  bool add(Value v) {
    if (frames_.empty()) {
      result_ = std::move(v);
    } else if (frames_.back().isObject) {
      // A repeated key replaces the earlier value.
      frames_.back().dict.insert_or_assign(Value(std::move(frames_.back().key)), std::move(v));
    } else {
      frames_.back().items.push_back(std::move(v));
    }
    return true;
  }

  bool open(bool isObject) {
    ++tokens_;
    if (frames_.size() >= kMaxNestingDepth) {
      return fail("nesting deeper than " + std::to_string(kMaxNestingDepth) + " levels");
    }
    frames_.emplace_back().isObject = isObject;
    return true;
  }

  bool close(Value container) {
    frames_.pop_back();
    return add(std::move(container));
  }

  bool allowFragments_;
  std::vector<Frame> frames_;
  Value result_;
  std::size_t tokens_ = 0;
  bool failedAtToken_ = false;
  std::size_t lastByteOfError_ = 0;
  bool misplacedToken_ = false;
  std::string what_;
};

// Writes compact JSON; stops at the first value that JSON cannot hold.
class JSONWriter {
 public:
  bool write(const Value& value) {
    switch (value.type()) {
      case Value::Type::Null:
        out_ += "null";
        return true;
      case Value::Type::Boolean:
        out_ += value.boolValue() ? "true" : "false";
        return true;
      case Value::Type::Integer:
        out_ += std::to_string(value.integerValue());
        return true;
      case Value::Type::Real:
        return writeReal(value.doubleValue());
      case Value::Type::String:
        return writeString(*value.asString());
      case Value::Type::Array:
        return writeArray(*value.asArray());
      case Value::Type::Dictionary:
        return writeDictionary(*value.asDictionary());
      default:
        return fail("Invalid type in JSON write (" + value.className() + ")");
    }
  }

  std::string& output() { return out_; }
  const std::string& failure() const { return failure_; }

 private:
  bool fail(std::string message) {
    failure_ = std::move(message);
    return false;
  }

  bool writeReal(double d) {
    if (std::isnan(d)) return fail("Invalid number value (NaN) in JSON write");
    if (std::isinf(d)) return fail("Invalid number value (infinite) in JSON write");
    out_ += formatReal(d);
    return true;
  }

  bool writeString(const std::string& s) {
    static constexpr char kHex[] = "0123456789abcdef";
    out_ += '"';
    for (std::size_t i = 0; i < s.size();) {
      const unsigned char c = static_cast<unsigned char>(s[i]);
      if (c >= 0x80) {
        const std::size_t length = utf8SequenceLength(s, i);
        if (length == 0) return fail("Invalid string (not UTF-8) in JSON write");
        out_.append(s, i, length);
        i += length;
        continue;
      }
      switch (c) {
        case '"':
          out_ += "\\\"";
          break;
        case '\\':
          out_ += "\\\\";
          break;
        case '\n':
          out_ += "\\n";
          break;
        case '\r':
          out_ += "\\r";
          break;
        case '\t':
          out_ += "\\t";
          break;
        case '\b':
          out_ += "\\b";
          break;
        case '\f':
          out_ += "\\f";
          break;
        default:
          if (c < 0x20) {
            out_ += "\\u00";
            out_ += kHex[c >> 4];
            out_ += kHex[c & 0xf];
          } else {
            out_ += static_cast<char>(c);
          }
      }
      ++i;
    }
    out_ += '"';
    return true;
  }

  bool writeArray(const Array& items) {
    out_ += '[';
    bool first = true;
    for (const Value& item : items) {
      if (!first) out_ += ',';
      first = false;
      if (!write(item)) return false;
    }
    out_ += ']';
    return true;
  }

  bool writeDictionary(const Dictionary& dict) {
    out_ += '{';
    bool first = true;
    for (const auto& [key, item] : dict) {
      if (!key.isString()) return fail("Invalid (non-string) key in JSON dictionary");
      if (!first) out_ += ',';
      first = false;
      if (!writeString(*key.asString())) return false;
      out_ += ':';
      if (!write(item)) return false;
    }
    out_ += '}';
    return true;
  }

  std::string out_;
  std::string failure_;
};

}  // namespace

std::optional<Value> JSON::parse(std::string_view text, ErrorPtr* error, JSONReadOptions options) {
  std::size_t firstByte = 0;
  while (firstByte < text.size() && isJSONWhitespace(text[firstByte])) ++firstByte;
  if (firstByte == text.size()) {
    setReadError(error, text, firstByte, "no JSON text");
    return std::nullopt;
  }
  ValueBuilder builder(options.allowFragments);
  if (nlohmann::json::sax_parse(text.begin(), text.end(), &builder)) return builder.takeResult();
  std::size_t offset = builder.lastByteOfError();
  if (builder.failedAtToken()) {
    offset = offsetOfToken(text, builder.failedToken());
  } else if (builder.misplacedToken()) {
    offset = startOfTokenEndingAt(text, offset);
  }
  setReadError(error, text, offset, builder.what());
  return std::nullopt;
}

std::optional<Value> JSON::parse(const Data& bytes, ErrorPtr* error, JSONReadOptions options) {
  return parse(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), error,
               options);
}

std::optional<std::string> JSON::serialize(const Value& value, ErrorPtr* error) {
  JSONWriter writer;
  if (writer.write(value)) return std::move(writer.output());
  if (error) {
    *error = Error::withDescription(NSCocoaErrorDomain, NSPropertyListWriteInvalidError,
                                    writer.failure());
  }
  return std::nullopt;
}

bool JSON::isValidJSONObject(const Value& value) {
  if (!value.isArray() && !value.isDictionary()) return false;
  JSONWriter writer;
  return writer.write(value);
}

}  // namespace pnx
