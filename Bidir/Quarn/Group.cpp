#include "Bidir/Quarn/Group.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Routing::Pim::Bidir::Quarn {

Group::Group(Kiv::TextIt& cursor, Kiv::TextIt end) {
  Kiv::valueTypeFromStrep(cursor, end, *this);
}

Kiv::String8 valueToStrep(Group const& v) {
  return Kiv::valueTypeToStrep(v);
}

std::ostream& operator<<(std::ostream& os, Group const& v) {
  return os << valueToStrep(v);
}

}  // namespace Routing::Pim::Bidir::Quarn
