#pragma once
// Routing::Pim::Bidir::Df::Quarn::RpaRpf: one record of the DF election's RPA-RPF table: for an
// RP address (the table key), the interface toward it (RPF_interface(RPA)), the RPF result the
// election computed, and the RPA's index. A fixed-size record shared between processes: 112
// bytes, 4-byte alignment, pinned below; the padding is an explicit field kept at zero.
//
// Text: Value('Routing::Pim::Bidir::Df::Quarn::RpaRpf', ** {'key': 10.0.0.1, 'rpfInterface':
// Ethernet3, 'rpf': <Rpf text>, 'rpaIndex': 1}); the reserved padding is not part of it.

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <tuple>
#include <type_traits>

#include "Kiv/Attribute.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"
#include "Pim/Rpf.h"

namespace Routing::Pim::Bidir::Df::Quarn {

struct RpaRpf {
  static constexpr char const* typeName = "Routing::Pim::Bidir::Df::Quarn::RpaRpf";

  RpaRpf() = default;
  // The record of `rpa` with every other field at its default.
  explicit RpaRpf(Lanx::IpGenAddr const& rpa) noexcept : key(rpa) {}

  Lanx::IpGenAddr key;         // the RP address (RPA)
  Lanx::IntfId rpfInterface;   // the interface toward the RPA
  Routing::Pim::Rpf rpf;       // the RPF result toward the RPA
  std::uint16_t rpaIndex = 0;  // the election's index of the RPA
  std::uint16_t reserved = 0;

  friend bool operator==(RpaRpf const&, RpaRpf const&) = default;

  static constexpr auto attributes() {
    return std::tuple{
        Kiv::field<&RpaRpf::key>("key", 2, "Lanx::IpGenAddr"),
        Kiv::field<&RpaRpf::rpfInterface>("rpfInterface", 3, "Lanx::IntfId"),
        Kiv::field<&RpaRpf::rpf>("rpf", 4, Routing::Pim::Rpf::typeName),
        Kiv::field<&RpaRpf::rpaIndex>("rpaIndex", 5, "U16"),
    };
  }
};

static_assert(sizeof(RpaRpf) == 112 && alignof(RpaRpf) == 4);
static_assert(offsetof(RpaRpf, key) == 0 && offsetof(RpaRpf, rpfInterface) == 20 &&
              offsetof(RpaRpf, rpf) == 28 && offsetof(RpaRpf, rpaIndex) == 108 &&
              offsetof(RpaRpf, reserved) == 110);
static_assert(std::is_trivially_copyable_v<RpaRpf> && std::is_standard_layout_v<RpaRpf>);

Kiv::String8 valueToStrep(RpaRpf const& v);
std::ostream& operator<<(std::ostream& os, RpaRpf const& v);

}  // namespace Routing::Pim::Bidir::Df::Quarn
