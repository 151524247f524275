#include "Bidir/MrouteClearFlags.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Routing::Pim::Bidir {

void MrouteClearFlags::checkValue(std::uint32_t value) {
  if (value > maxValue) Kiv::throwRangeException("MrouteClearFlags::value > 0x3 not allowed");
}

void MrouteClearFlags::valueIs(std::uint32_t value) {
  checkValue(value);
  word_ = value;
}

MrouteClearFlags::MrouteClearFlags(Kiv::TextIt& cursor, Kiv::TextIt end) {
  Kiv::valueTypeFromStrep(cursor, end, *this);
  checkValue(word_);
}

Kiv::String8 valueToStrep(MrouteClearFlags const& v) {
  return Kiv::valueTypeToStrep(v);
}

std::ostream& operator<<(std::ostream& os, MrouteClearFlags const& v) {
  return os << valueToStrep(v);
}

}  // namespace Routing::Pim::Bidir
