#pragma once
// Kiv::String8: the framework's byte string (UTF-8 by convention, not checked). It is a
// std::string with the framework's names: `IteratorConst` is the parse cursor that text readers
// advance, and `charPtr()` the NUL-terminated bytes. It adds no state, so it converts freely to and
// from std::string.

#include <string>
#include <string_view>
#include <utility>

namespace Kiv {

class String8 : public std::string {
 public:
  using IteratorConst = std::string::const_iterator;

  String8() = default;
  String8(std::string s) : std::string(std::move(s)) {}
  String8(std::string_view s) : std::string(s) {}
  String8(char const* s) : std::string(s) {}
  String8(char const* s, size_type n) : std::string(s, n) {}

  char const* charPtr() const noexcept { return c_str(); }
  std::string_view view() const noexcept { return std::string_view(*this); }
};

}  // namespace Kiv
