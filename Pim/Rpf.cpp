#include "Pim/Rpf.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Routing::Pim {

Kiv::String8 valueToStrep(Rpf const& rpf) {
  return Kiv::valueTypeToStrep(rpf);
}

std::ostream& operator<<(std::ostream& os, Rpf const& rpf) {
  return os << valueToStrep(rpf);
}

}  // namespace Routing::Pim
