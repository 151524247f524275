#include "Pim/RouteKey.h"

#include <ostream>

namespace Routing::Pim {

std::ostream& operator<<(std::ostream& os, RouteKey const& key) {
  return os << "(" << key.source() << ", " << key.group() << ")";
}

}  // namespace Routing::Pim
