#include "Kiv/Text.h"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <limits>

namespace Kiv {

namespace {

bool isBlank(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isAlpha(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

int hexValue(char c) noexcept {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

[[noreturn]] void throwExpected(char const* what, TextIt cursor, TextIt end) {
  throwRangeException(String8("expected ") + what + " at " + excerpt(cursor, end));
}

// The run of bytes at the cursor for which `pred` holds.
template <class Pred>
std::string_view token(TextIt& cursor, TextIt end, Pred pred) {
  TextIt start = cursor;
  while (cursor != end && pred(*cursor)) ++cursor;
  return std::string_view(start == end ? nullptr : &*start,
                          static_cast<std::size_t>(cursor - start));
}

bool isNumberChar(char c) noexcept {
  return isAlpha(c) || isDigit(c) || c == '.' || c == '+' || c == '-';
}

// A floating-point token: optional sign, then either "0x" and the hexadecimal form or the decimal
// form (including inf, infinity and nan, in any case). False when the token is not one number
// that the extended type can hold.
bool parseFloat(std::string_view text, long double& out) noexcept {
  bool negative = false;
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  auto format = std::chars_format::general;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    format = std::chars_format::hex;
    text.remove_prefix(2);
  }
  // from_chars would take a second sign; the one above is the only one allowed.
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  long double v = 0;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v, format);
  if (ec != std::errc() || ptr != text.data() + text.size()) return false;
  out = negative ? -v : v;
  return true;
}

// Narrows to double; false for a finite value beyond double's range (the conversion would be
// undefined).
bool narrow(long double v, double& out) noexcept {
  if (std::isfinite(v) && std::fabs(v) > static_cast<long double>(DBL_MAX)) return false;
  out = static_cast<double>(v);
  return true;
}

}  // namespace

String8 excerpt(TextIt cursor, TextIt end) {
  if (cursor == end) return "end of input";
  std::size_t const n = std::min<std::size_t>(16, static_cast<std::size_t>(end - cursor));
  return valueToStrep(String8(&*cursor, n));
}

String8 format(char const* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  int const n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  String8 out;
  if (n > 0) {
    out.resize(static_cast<std::size_t>(n));
    std::vsnprintf(out.data(), out.size() + 1, fmt, args);
  }
  va_end(args);
  return out;
}

void needString(TextIt& cursor, TextIt end, std::string_view pattern) {
  TextIt c = cursor;
  for (char p : pattern) {
    if (p == ' ') {
      while (c != end && isBlank(*c)) ++c;
    } else if (c != end && *c == p) {
      ++c;
    } else {
      throwRangeException(String8("expected \"") + String8(pattern) + "\" at " + excerpt(c, end));
    }
  }
  cursor = c;
}

String8 valueToStrep(bool v) {
  return v ? "True" : "False";
}

String8 valueToStrep(std::int64_t v) {
  return std::to_string(v);
}

String8 valueToStrep(std::uint64_t v) {
  return std::to_string(v);
}

String8 valueToStrep(double v) {
  char buf[64];
  auto shortest = std::to_chars(buf, buf + sizeof buf, v);
  String8 text(buf, static_cast<std::size_t>(shortest.ptr - buf));
  long double back = 0;
  double narrowed = 0;
  if (std::isnan(v) || (parseFloat(text.view(), back) && narrow(back, narrowed) && narrowed == v)) {
    return text;
  }
  // The shortest decimal lies so close to a rounding boundary that the extended-precision reader
  // would round it the other way: print the exact hexadecimal form instead.
  auto hex = std::to_chars(buf, buf + sizeof buf, std::fabs(v), std::chars_format::hex);
  return String8(std::signbit(v) ? "-0x" : "0x") +
         String8(buf, static_cast<std::size_t>(hex.ptr - buf));
}

String8 valueToStrep(String8 const& v) {
  static char const digits[] = "0123456789abcdef";
  String8 out = "'";
  for (char c : v) {
    auto u = static_cast<unsigned char>(c);
    if (c == '\'' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20 || u >= 0x7f) {
      out += "\\x";
      out += digits[u >> 4];
      out += digits[u & 0xf];
    } else {
      out += c;
    }
  }
  out += '\'';
  return out;
}

String8 sequenceToValue(TextIt& cursor, TextIt end, String8 const*) {
  if (cursor == end || (*cursor != '\'' && *cursor != '"')) {
    throwExpected("a quoted string", cursor, end);
  }
  char const quote = *cursor;
  TextIt c = cursor + 1;
  String8 out;
  while (true) {
    if (c == end) throwRangeException("unterminated string at " + excerpt(cursor, end));
    char ch = *c++;
    if (ch == quote) break;
    if (ch != '\\') {
      out += ch;
      continue;
    }
    if (c == end) continue;  // reported as unterminated
    char const esc = *c++;
    if (esc == '\\' || esc == '\'' || esc == '"') {
      out += esc;
    } else if (esc == 'x' && end - c >= 2 && hexValue(c[0]) >= 0 && hexValue(c[1]) >= 0) {
      out += static_cast<char>(hexValue(c[0]) * 16 + hexValue(c[1]));
      c += 2;
    } else {
      throwRangeException("bad escape in string at " + excerpt(c - 2, end));
    }
  }
  cursor = c;
  return out;
}

bool sequenceToValue(TextIt& cursor, TextIt end, bool const*) {
  TextIt c = cursor;
  std::string_view word = token(c, end, isAlpha);
  bool value;
  if (word == "True" || word == "true") {
    value = true;
  } else if (word == "False" || word == "false") {
    value = false;
  } else {
    throwExpected("a Boolean", cursor, end);
  }
  cursor = c;
  return value;
}

std::int64_t sequenceToValue(TextIt& cursor, TextIt end, std::int64_t const*) {
  TextIt c = cursor;
  bool negative = false;
  if (c != end && (*c == '-' || *c == '+')) negative = *c++ == '-';
  std::string_view digits = token(c, end, isDigit);
  if (digits.empty()) throwExpected("an integer", cursor, end);
  // Accumulate the magnitude as unsigned: its limit is one more for a negative number.
  std::uint64_t const limit =
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + (negative ? 1 : 0);
  std::uint64_t magnitude = 0;
  for (char d : digits) {
    auto digit = static_cast<std::uint64_t>(d - '0');
    if (magnitude > (limit - digit) / 10) {
      throwRangeException("integer out of range at " + excerpt(cursor, end));
    }
    magnitude = magnitude * 10 + digit;
  }
  cursor = c;
  // Two's complement negation of the magnitude, done in unsigned arithmetic so that the most
  // negative value needs no signed overflow.
  return static_cast<std::int64_t>(negative ? ~magnitude + 1 : magnitude);
}

long double sequenceToValue(TextIt& cursor, TextIt end, long double const*) {
  TextIt c = cursor;
  long double value = 0;
  if (!parseFloat(token(c, end, isNumberChar), value)) throwExpected("a number", cursor, end);
  cursor = c;
  return value;
}

double sequenceToValue(TextIt& cursor, TextIt end, double const*) {
  TextIt c = cursor;
  double value = 0;
  if (!narrow(sequenceToValue(c, end, static_cast<long double const*>(nullptr)), value)) {
    throwRangeException("number out of range at " + excerpt(cursor, end));
  }
  cursor = c;
  return value;
}

void rethrowFromDeserializeAttr(RangeException const& e, String8 const& name) {
  throw RangeException("attribute '" + name + "': " + e.what());
}

void throwJunk(TextIt cursor, String8 const& text) {
  auto const column = static_cast<long long>(cursor - text.cbegin());
  // The text is appended rather than formatted so that bytes after an embedded NUL still show.
  throwRangeException(format("junk at column %lld deserializing ", column) + text);
}

}  // namespace Kiv
