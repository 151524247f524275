#include "Bidir/Quarn/GroupIntf.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Routing::Pim::Bidir::Quarn {

GroupIntf::GroupIntf(Kiv::TextIt& cursor, Kiv::TextIt end) {
  Kiv::valueTypeFromStrep(cursor, end, *this);
}

Kiv::String8 valueToStrep(GroupIntf const& v) {
  return Kiv::valueTypeToStrep(v);
}

std::ostream& operator<<(std::ostream& os, GroupIntf const& v) {
  return os << valueToStrep(v);
}

}  // namespace Routing::Pim::Bidir::Quarn
