#include "Bidir/Df/RpaRpf.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Routing::Pim::Bidir::Df::Quarn {

Kiv::String8 valueToStrep(RpaRpf const& v) {
  return Kiv::valueTypeToStrep(v);
}

std::ostream& operator<<(std::ostream& os, RpaRpf const& v) {
  return os << valueToStrep(v);
}

}  // namespace Routing::Pim::Bidir::Df::Quarn
