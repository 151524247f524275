#pragma once
// Routing::Pim::Rpf: the reverse-path-forwarding result toward an address: the interface and
// neighbour to send joins to, the address it was computed for, the unicast route prefix that
// matched, and the route's metric and metric preference. A fixed-size, trivially copyable value
// (it travels inside other agents' shared-memory records). The default names no interface and no
// addresses, with metric 0 and metric preference 1.
//
// Text: Value('Routing::Pim::Rpf', ** {'intfId': Ethernet3, 'neighbor': 10.100.0.3, 'addr':
// 10.0.0.1, 'prefix': 0.0.0.0/0, 'metric': 13, 'metricPreference': 1}).

#include <cstdint>
#include <iosfwd>
#include <tuple>
#include <type_traits>

#include "Kiv/Attribute.h"

#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"
#include "Lanx/IpGenPrefix.h"

namespace Routing::Pim {

struct Rpf {
  static constexpr char const* typeName = "Routing::Pim::Rpf";

  Lanx::IntfId intfId;
  Lanx::IpGenAddr neighbor;
  Lanx::IpGenAddr addr;
  Lanx::IpGenPrefix prefix;
  std::uint32_t metric = 0;
  std::uint32_t metricPreference = 1;

  friend bool operator==(Rpf const&, Rpf const&) = default;

  static constexpr auto attributes() {
    return std::tuple{
        Kiv::field<&Rpf::intfId>("intfId", 2, "Lanx::IntfId"),
        Kiv::field<&Rpf::neighbor>("neighbor", 3, "Lanx::IpGenAddr"),
        Kiv::field<&Rpf::addr>("addr", 4, "Lanx::IpGenAddr"),
        Kiv::field<&Rpf::prefix>("prefix", 5, "Lanx::IpGenPrefix"),
        Kiv::field<&Rpf::metric>("metric", 6, "U32"),
        Kiv::field<&Rpf::metricPreference>("metricPreference", 7, "U32"),
    };
  }
};

static_assert(sizeof(Rpf) == 80 && alignof(Rpf) == 4);
static_assert(std::is_trivially_copyable_v<Rpf> && std::is_standard_layout_v<Rpf>);

Kiv::String8 valueToStrep(Rpf const& rpf);
std::ostream& operator<<(std::ostream& os, Rpf const& rpf);

}  // namespace Routing::Pim
