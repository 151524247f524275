#pragma once
// Routing::Pim::Rpf: the reverse-path-forwarding result toward an address: the interface and
// neighbour to send joins to, the address it was computed for, the unicast route prefix that
// matched, and the route's metric and metric preference. A fixed-size, trivially copyable value
// (it travels inside other agents' shared-memory records). The default names no interface and no
// addresses, with metric 0 and metric preference 1.

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"
#include "Lanx/IpGenPrefix.h"

namespace Routing::Pim {

struct Rpf {
  Lanx::IntfId intfId;
  Lanx::IpGenAddr neighbor;
  Lanx::IpGenAddr addr;
  Lanx::IpGenPrefix prefix;
  std::uint32_t metric = 0;
  std::uint32_t metricPreference = 1;

  friend bool operator==(Rpf const&, Rpf const&) = default;
};

static_assert(sizeof(Rpf) == 80 && alignof(Rpf) == 4);
static_assert(std::is_trivially_copyable_v<Rpf> && std::is_standard_layout_v<Rpf>);

std::ostream& operator<<(std::ostream& os, Rpf const& rpf);

}  // namespace Routing::Pim
