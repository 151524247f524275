#pragma once
// JSON output of quarnctl: one object per line ("JSON lines"), built into a string.
//
// The writer keeps the nesting itself (a comma before every member but the first), so callers
// only say what comes: `key` then a value, or a value inside an array. Strings are escaped so
// that the output is valid UTF-8 JSON whatever the bytes were: quotes, backslashes and control
// characters are escaped, and a byte that is not part of a valid UTF-8 sequence is written as the
// code point of the same number (\u00XX), so text read from a damaged file never breaks a line.
// Numbers: integers exactly; doubles in their shortest form that reads back the same, and null
// for NaN and infinities, which JSON cannot spell.

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Quarnctl::Json {

// `text` as a JSON string literal (quotes included), appended to `out`.
void appendString(std::string& out, std::string_view text);

class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  Writer& beginObject();
  Writer& endObject();
  Writer& beginArray();
  Writer& endArray();
  // The name of the next member of the open object.
  Writer& key(std::string_view name);

  Writer& string(std::string_view text);
  Writer& boolean(bool v);
  Writer& null();
  Writer& number(double v);
  template <class I>
  requires(std::is_integral_v<I> && !std::is_same_v<I, bool>) Writer& number(I v) {
    separate();
    if constexpr (std::is_signed_v<I>) {
      out_ += std::to_string(static_cast<long long>(v));
    } else {
      out_ += std::to_string(static_cast<unsigned long long>(v));
    }
    return *this;
  }

  // A member with its value: field("records", 12).
  template <class V>
  Writer& field(std::string_view name, V const& v) {
    key(name);
    if constexpr (std::is_same_v<V, bool>) {
      return boolean(v);
    } else if constexpr (std::is_arithmetic_v<V>) {
      return number(v);
    } else {
      return string(std::string_view(v));
    }
  }

  // Ends a top-level object's line.
  void endLine() { out_ += '\n'; }
  // True when every object and array opened was closed.
  bool closed() const noexcept { return first_.empty(); }

 private:
  // Writes the comma that precedes a value or member, unless a key was just written.
  void separate();

  std::string& out_;
  std::vector<bool> first_;  // per open object or array: nothing written in it yet
  bool afterKey_ = false;
};

}  // namespace Quarnctl::Json
