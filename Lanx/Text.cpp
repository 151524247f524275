#include "Lanx/Text.h"

#include <string>

namespace Lanx::Text {

bool parseDecimal(std::string_view text, unsigned maxDigits, unsigned long& out) noexcept {
  if (text.empty() || text.size() > maxDigits) return false;
  unsigned long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned long>(c - '0');
  }
  out = v;
  return true;
}

void throwBadText(char const* what, std::string_view text) {
  Kiv::throwRangeException(std::string(what) + ": '" + std::string(text) + "'");
}

}  // namespace Lanx::Text
