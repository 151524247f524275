#pragma once
// Helpers shared by the Lanx text readers (not part of the public value types).

#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/String8.h"

namespace Lanx::Text {

// Reads one token at `cursor`: either the characters for which `isTokenChar` holds, or everything
// between a pair of single quotes. Advances the cursor past the token (and its quotes). An
// unterminated quote throws Kiv::RangeException.
template <class Pred>
std::string_view readToken(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end,
                           Pred isTokenChar);

// Parses a decimal number of at most `maxDigits` digits and no sign; false on anything else.
bool parseDecimal(std::string_view text, unsigned maxDigits, unsigned long& out) noexcept;

[[noreturn]] void throwBadText(char const* what, std::string_view text);

// ---- implementation ----

template <class Pred>
std::string_view readToken(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end,
                           Pred isTokenChar) {
  auto start = cursor;
  if (cursor != end && *cursor == '\'') {
    ++start;
    auto close = start;
    while (close != end && *close != '\'') ++close;
    if (close == end) Kiv::throwRangeException("unterminated quoted value");
    cursor = close + 1;
    return std::string_view(&*start, static_cast<std::size_t>(close - start));
  }
  while (cursor != end && isTokenChar(*cursor)) ++cursor;
  if (cursor == start) return {};
  return std::string_view(&*start, static_cast<std::size_t>(cursor - start));
}

}  // namespace Lanx::Text
