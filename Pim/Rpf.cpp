#include "Pim/Rpf.h"

#include <ostream>

namespace Routing::Pim {

std::ostream& operator<<(std::ostream& os, Rpf const& rpf) {
  return os << "Rpf(intf=" << rpf.intfId << ", neighbor=" << rpf.neighbor << ", addr=" << rpf.addr
            << ", prefix=" << rpf.prefix << ", metric=" << rpf.metric
            << ", metricPreference=" << rpf.metricPreference << ")";
}

}  // namespace Routing::Pim
