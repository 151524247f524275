#include "Bidir/GroupIntfKey.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Routing::Pim::Bidir {

GroupIntfKey::GroupIntfKey(Kiv::TextIt& cursor, Kiv::TextIt end) {
  Kiv::valueTypeFromStrep(cursor, end, *this);
}

Kiv::String8 valueToStrep(GroupIntfKey const& v) {
  return Kiv::valueTypeToStrep(v);
}

std::ostream& operator<<(std::ostream& os, GroupIntfKey const& v) {
  return os << valueToStrep(v);
}

}  // namespace Routing::Pim::Bidir
