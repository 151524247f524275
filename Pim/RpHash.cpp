#include "Pim/RpHash.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Routing::Pim {

Kiv::String8 valueToStrep(RpHash const& v) {
  return Kiv::valueTypeToStrep(v);
}

std::ostream& operator<<(std::ostream& os, RpHash const& v) {
  return os << valueToStrep(v);
}

}  // namespace Routing::Pim
