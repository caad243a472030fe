#include "platform/foundation/format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "platform/foundation/utf8.h"

namespace pnx {

namespace {

// Widths and precisions beyond this are clamped: a hostile "%2147483647d" must not make
// us allocate gigabytes.
constexpr int kMaxWidth = 4096;

// One parsed conversion: %[{annotation}][n$][flags][width][.precision][length]conversion.
// A '*' width or precision is not supported: the conversion is then copied through as
// written, without consuming an argument.
struct Directive {
  std::string flags;
  int width = -1;
  int precision = -1;
  std::string length;  // "", "h", "hh", "l", "ll", "q", "z", "t", "j" or "L"
  char conversion = 0;
  int position = -1;  // explicit argument index ("%2$@"), zero-based
};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Reads a decimal number at fmt[i], clamped to kMaxWidth.
int readNumber(std::string_view fmt, std::size_t& i) {
  int value = 0;
  while (i < fmt.size() && isDigit(fmt[i])) {
    value = std::min(kMaxWidth, value * 10 + (fmt[i] - '0'));
    ++i;
  }
  return value;
}

// Parses the conversion that starts after the '%' at fmt[i]. On success i points past
// the conversion character; on failure (incomplete or unknown) returns false.
bool parseSpec(std::string_view fmt, std::size_t& i, Directive& directive) {
  // A privacy annotation ("{public}", "{private}") only matters to the system log.
  if (i < fmt.size() && fmt[i] == '{') {
    std::size_t close = fmt.find('}', i);
    if (close == std::string_view::npos) return false;
    i = close + 1;
  }
  // "n$": digits followed by '$' select the argument; otherwise they are the width.
  std::size_t start = i;
  int number = readNumber(fmt, i);
  if (i > start && i < fmt.size() && fmt[i] == '$' && number > 0) {
    directive.position = number - 1;
    ++i;
  } else {
    i = start;
  }
  while (i < fmt.size() && std::strchr("-+ #0", fmt[i]) && fmt[i] != '\0') {
    directive.flags += fmt[i++];
  }
  if (i < fmt.size() && isDigit(fmt[i])) directive.width = readNumber(fmt, i);
  if (i < fmt.size() && fmt[i] == '.') {
    ++i;
    directive.precision = readNumber(fmt, i);  // "%.f" means precision 0, as in C
  }
  for (const char* length : {"hh", "ll", "h", "l", "q", "z", "t", "j", "L"}) {
    if (fmt.substr(i).starts_with(length)) {
      directive.length = length;
      i += std::strlen(length);
      break;
    }
  }
  if (i >= fmt.size()) return false;
  char c = fmt[i];
  if (!std::strchr("diuxXofFeEgGaAscp@%", c) || c == '\0') return false;
  directive.conversion = c;
  ++i;
  return true;
}

bool hasFlag(const Directive& directive, char flag) {
  return directive.flags.find(flag) != std::string::npos;
}

// ---------------------------------------------------------------------------------------
// Reading an argument as the conversion wants it.

using Arg = std::variant<std::int64_t, std::uint64_t, double, Value>;

// Reals saturate instead of overflowing (a cast of an out-of-range double is undefined).
std::int64_t doubleToInt(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
  if (d <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

// The argument's bits as a 64-bit integer; strings and other non-numbers read as 0.
std::uint64_t integerBits(const Arg* arg) {
  if (!arg) return 0;
  if (auto* i = std::get_if<std::int64_t>(arg)) return static_cast<std::uint64_t>(*i);
  if (auto* u = std::get_if<std::uint64_t>(arg)) return *u;
  if (auto* d = std::get_if<double>(arg)) return static_cast<std::uint64_t>(doubleToInt(*d));
  const Value& v = std::get<Value>(*arg);
  return v.isNumber() ? static_cast<std::uint64_t>(v.integerValue()) : 0;
}

double realValue(const Arg* arg) {
  if (!arg) return 0;
  if (auto* i = std::get_if<std::int64_t>(arg)) return static_cast<double>(*i);
  if (auto* u = std::get_if<std::uint64_t>(arg)) return static_cast<double>(*u);
  if (auto* d = std::get_if<double>(arg)) return *d;
  const Value& v = std::get<Value>(*arg);
  return v.isNumber() ? v.doubleValue() : 0;
}

// What %@ and %s print: a string as itself, a null as (null), a number as its decimal
// text, anything else as its description.
std::string objectText(const Arg* arg) {
  if (!arg) return "(null)";
  if (auto* i = std::get_if<std::int64_t>(arg)) return std::to_string(*i);
  if (auto* u = std::get_if<std::uint64_t>(arg)) return std::to_string(*u);
  if (auto* d = std::get_if<double>(arg)) return Value(*d).description();
  const Value& v = std::get<Value>(*arg);
  if (v.isNull()) return "(null)";
  if (const std::string* s = v.asString()) return *s;
  return v.description();
}

// ---------------------------------------------------------------------------------------
// Rendering.

bool isContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

std::size_t codePointCount(const std::string& s) {
  return static_cast<std::size_t>(
      std::count_if(s.begin(), s.end(), [](char c) { return !isContinuationByte(c); }));
}

// Keeps the first n code points (never splits a UTF-8 sequence).
std::string firstCodePoints(const std::string& s, std::size_t n) {
  std::size_t seen = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (!isContinuationByte(s[i]) && seen++ == n) return s.substr(0, i);
  }
  return s;
}

// Width and precision for text conversions count characters (code points), not bytes.
std::string padText(std::string text, const Directive& directive) {
  if (directive.precision >= 0)
    text = firstCodePoints(text, static_cast<std::size_t>(directive.precision));
  std::size_t length = codePointCount(text);
  if (directive.width < 0 || length >= static_cast<std::size_t>(directive.width)) return text;
  std::string padding(static_cast<std::size_t>(directive.width) - length, ' ');
  return hasFlag(directive, '-') ? text + padding : padding + text;
}

// snprintf with a directive rebuilt from the parsed parts; the argument's C type is chosen
// here, so the directive always matches it.
template <class T>
std::string cFormat(const Directive& directive, const char* length, char conversion, T value) {
  std::string cspec = "%" + directive.flags;
  if (directive.width >= 0) cspec += std::to_string(directive.width);
  if (directive.precision >= 0) cspec += "." + std::to_string(directive.precision);
  cspec += length;
  cspec += conversion;
  char buffer[128];
  int n = std::snprintf(buffer, sizeof buffer, cspec.c_str(), value);
  if (n < 0) return {};
  if (static_cast<std::size_t>(n) < sizeof buffer) return std::string(buffer, n);
  std::string out(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(out.data(), out.size(), cspec.c_str(), value);
  out.resize(static_cast<std::size_t>(n));
  return out;
}

// A plain "%d", "%u", "%x" or "%o" (no flags, width or precision), the common case in
// log messages, is written directly rather than through snprintf.
template <class T>
std::string integerText(const Directive& directive, T value) {
  const bool plain = directive.flags.empty() && directive.width < 0 && directive.precision < 0;
  if (!plain || directive.conversion == 'X')
    return cFormat(directive, "ll", directive.conversion, value);
  const int base = directive.conversion == 'x' ? 16 : directive.conversion == 'o' ? 8 : 10;
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof digits, value, base);
  return std::string(digits, result.ptr);
}

// Integers follow C's widths: no length modifier means int, h short, hh char, and any of
// l ll q z t j L a 64-bit value. So "%x" of -1 prints ffffffff as it would in C.
std::string formatInteger(const Directive& directive, std::uint64_t bits) {
  bool isSigned = directive.conversion == 'd' || directive.conversion == 'i';
  const std::string& len = directive.length;
  if (isSigned) {
    long long v = static_cast<std::int64_t>(bits);
    if (len.empty()) v = static_cast<int>(bits);
    if (len == "h") v = static_cast<short>(bits);
    if (len == "hh") v = static_cast<signed char>(bits);
    return integerText(directive, v);
  }
  unsigned long long v = bits;
  if (len.empty()) v = static_cast<unsigned>(bits);
  if (len == "h") v = static_cast<unsigned short>(bits);
  if (len == "hh") v = static_cast<unsigned char>(bits);
  return integerText(directive, v);
}

std::string formatCharacter(const Directive& directive, const Arg* arg) {
  auto code = static_cast<std::uint32_t>(integerBits(arg));
  // A NUL would cut C strings made from the result; invalid code points are dropped too.
  std::string text;
  if (code != 0 && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF)) appendUTF8(text, code);
  Directive padding = directive;
  padding.precision = -1;
  return padText(text, padding);
}

std::string formatPointer(const Directive& directive, const Arg* arg) {
  std::uint64_t address = integerBits(arg);
  if (arg && std::holds_alternative<Value>(*arg)) {
    if (const ObjectPtr* object = std::get<Value>(*arg).asObject()) {
      address = reinterpret_cast<std::uintptr_t>(object->get());
    }
  }
  std::string text =
      "0x" + cFormat(Directive{}, "ll", 'x', static_cast<unsigned long long>(address));
  Directive padding = directive;
  padding.precision = -1;
  return padText(text, padding);
}

std::string formatOne(const Directive& directive, const Arg* arg) {
  switch (directive.conversion) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      return formatInteger(directive, integerBits(arg));
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      return cFormat(directive, "", directive.conversion, realValue(arg));
    case 'c':
      return formatCharacter(directive, arg);
    case 'p':
      return formatPointer(directive, arg);
    default:  // '@' and 's'
      return padText(objectText(arg), directive);
  }
}

}  // namespace

std::string formatArgs(std::string_view fmt, const std::vector<FormatArg>& args) {
  std::string out;
  out.reserve(fmt.size() + 16 * args.size());
  std::size_t next = 0;  // index of the next sequential argument
  std::size_t i = 0;
  while (i < fmt.size()) {
    std::size_t percent = fmt.find('%', i);
    if (percent == std::string_view::npos) {
      out.append(fmt.substr(i));
      break;
    }
    out.append(fmt.substr(i, percent - i));
    std::size_t end = percent + 1;
    Directive directive;
    if (!parseSpec(fmt, end, directive)) {
      // Unknown or incomplete: copy the '%' and go on from the character after it.
      out += '%';
      i = percent + 1;
      continue;
    }
    i = end;
    if (directive.conversion == '%') {
      out += '%';
      continue;
    }
    std::size_t index =
        directive.position >= 0 ? static_cast<std::size_t>(directive.position) : next++;
    const Arg* arg = index < args.size() ? &args[index].value() : nullptr;
    out += formatOne(directive, arg);
  }
  return out;
}

namespace {

// Characters a terminal acts on or that reorder the text around them: C0 and C1 controls,
// DEL, the line and paragraph separators, and the bidirectional embeddings and isolates.
bool needsEscape(char32_t c) {
  return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x2028 || c == 0x2029 ||
         (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

void appendEscape(std::string& out, char32_t c, bool isByte) {
  switch (c) {
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      break;
  }
  char buffer[12];
  std::snprintf(buffer, sizeof buffer, isByte ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(c));
  out += buffer;
}

}  // namespace

std::string excerpt(std::string_view text, std::size_t maxBytes) {
  std::string out;
  std::size_t i = 0;
  while (i < text.size()) {
    char32_t c = 0;
    std::size_t length = utf8SequenceLength(text, i, &c);
    if (i + std::max<std::size_t>(length, 1) > maxBytes) break;
    if (length == 0) {
      appendEscape(out, static_cast<unsigned char>(text[i]), true);
      length = 1;
    } else if (needsEscape(c)) {
      appendEscape(out, c, c < 0x80);
    } else {
      out.append(text, i, length);
    }
    i += length;
  }
  if (i < text.size()) {
    out += "\u2026 (" + std::to_string(text.size() - i) + " more bytes)";
  }
  return out;
}

}  // namespace pnx
