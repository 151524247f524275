#pragma once
// The framework's text toolkit: the one set of printers and readers from which every value type's
// text form is built.
//
// Reading works on a cursor (String8::IteratorConst, passed by reference and advanced past what
// was read) and the end of the input. Every reader refuses bad text with Kiv::RangeException; the
// cursor is then unspecified and nothing is stored.
//
// The built-in forms:
//   Boolean       True / False (lower-case true / false are read too)
//   integers      decimal, optional sign on reading; signed 64-bit on reading
//   floating      the shortest decimal that reads back to the same double ("1.5", "1e-07", "inf",
//                 "nan"); in the rare case where reading through extended precision would round
//                 it differently, exact hexadecimal ("0x1.8p+1"). Read with extended precision.
//   string        between single quotes, with \\, \' and \xHH escapes for quotes, backslashes and
//                 bytes outside printable ASCII; double quotes are read as delimiters too.
//
// Patterns (needString): a blank stands for any run of white space (space, tab, newline, carriage
// return, vertical tab, form feed), including none; every other character must match exactly.

#include <concepts>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Kiv/Exception.h"
#include "Kiv/String8.h"

namespace Kiv {

using TextIt = String8::IteratorConst;

// printf-style formatting into a String8.
String8 format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));

// What stands at the cursor, for messages: at most 16 bytes, quoted and escaped, or
// "end of input".
String8 excerpt(TextIt cursor, TextIt end);

// Consumes `pattern` at the cursor (blank rule above), or throws naming the pattern and the text
// found; the cursor is left where it was on failure.
void needString(TextIt& cursor, TextIt end, std::string_view pattern);

// ---- printers ----
String8 valueToStrep(bool v);
String8 valueToStrep(std::int64_t v);
String8 valueToStrep(std::uint64_t v);
template <std::integral I>
requires(!std::same_as<I, bool>) String8 valueToStrep(I v) {
  if constexpr (std::is_signed_v<I>) {
    return valueToStrep(static_cast<std::int64_t>(v));
  } else {
    return valueToStrep(static_cast<std::uint64_t>(v));
  }
}
String8 valueToStrep(double v);
String8 valueToStrep(String8 const& v);

// ---- readers (the pointer argument only selects the overload) ----
String8 sequenceToValue(TextIt& cursor, TextIt end, String8 const*);
bool sequenceToValue(TextIt& cursor, TextIt end, bool const*);
std::int64_t sequenceToValue(TextIt& cursor, TextIt end, std::int64_t const*);
long double sequenceToValue(TextIt& cursor, TextIt end, long double const*);
// Read with extended precision, then narrowed.
double sequenceToValue(TextIt& cursor, TextIt end, double const*);

// One T at the cursor: T's parsing constructor (T(cursor, end)) when it has one, otherwise the
// `sequenceToValue(cursor, end, T const*)` overload found here or in T's namespace.
template <class T>
T sequenceToValue(TextIt& cursor, TextIt end);

// Raises `e` again with the attribute `name` prefixed to its message: "attribute 'name': ...".
[[noreturn]] void rethrowFromDeserializeAttr(RangeException const& e, String8 const& name);

// Reads attribute `name` of type T at the cursor; a RangeException of the reader is raised again
// naming the attribute (rethrowFromDeserializeAttr), other exceptions pass unchanged.
template <class T>
T deserializeAttr(TextIt& cursor, TextIt end, T const* tag, String8 const& name);

// Throws "junk at column %lld deserializing %s" for text left after a whole value: the column is
// the cursor's byte offset in `text` (which the cursor must point into), then the whole text.
[[noreturn]] void throwJunk(TextIt cursor, String8 const& text);

// Parses the whole `text` as one T; text left over is refused (throwJunk).
template <class T>
T strepToValue(String8 const& text);
template <class T>
T strepToValue(String8 const& text, T* tag);

// ---- implementation ----

template <class T>
T sequenceToValue(TextIt& cursor, TextIt end) {
  if constexpr (std::is_constructible_v<T, TextIt&, TextIt>) {
    return T(cursor, end);
  } else {
    return sequenceToValue(cursor, end, static_cast<T const*>(nullptr));
  }
}

template <class T>
T deserializeAttr(TextIt& cursor, TextIt end, T const*, String8 const& name) {
  try {
    return sequenceToValue<T>(cursor, end);
  } catch (RangeException const& e) {
    rethrowFromDeserializeAttr(e, name);
  }
}

template <class T>
T strepToValue(String8 const& text) {
  TextIt cursor = text.cbegin();
  TextIt const end = text.cend();
  T value = sequenceToValue<T>(cursor, end);
  if (cursor != end) throwJunk(cursor, text);
  return value;
}

template <class T>
T strepToValue(String8 const& text, T*) {
  return strepToValue<T>(text);
}

}  // namespace Kiv
