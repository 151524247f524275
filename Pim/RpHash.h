#pragma once
// Routing::Pim::RpHash: one record of the PIM agent's RP hash table: the group range (the table
// key) and the RP that serves it. A fixed-size record shared between processes: 44 bytes, 4-byte
// alignment, pinned below.
//
// Text: Value('Routing::Pim::RpHash', ** {'key': 239.1.0.7/32, 'rp': 10.0.0.4}).

#include <cstddef>
#include <iosfwd>
#include <tuple>
#include <type_traits>

#include "Kiv/Attribute.h"

#include "Lanx/IpGenAddr.h"
#include "Lanx/IpGenPrefix.h"

namespace Routing::Pim {

struct RpHash {
  static constexpr char const* typeName = "Routing::Pim::RpHash";

  Lanx::IpGenPrefix key;  // the group range
  Lanx::IpGenAddr rp;     // the RP address serving it

  friend bool operator==(RpHash const&, RpHash const&) = default;

  static constexpr auto attributes() {
    return std::tuple{
        Kiv::field<&RpHash::key>("key", 2, "Lanx::IpGenPrefix"),
        Kiv::field<&RpHash::rp>("rp", 3, "Lanx::IpGenAddr"),
    };
  }
};

static_assert(sizeof(RpHash) == 44 && alignof(RpHash) == 4);
static_assert(offsetof(RpHash, key) == 0 && offsetof(RpHash, rp) == 24);
static_assert(std::is_trivially_copyable_v<RpHash> && std::is_standard_layout_v<RpHash>);

Kiv::String8 valueToStrep(RpHash const& v);
std::ostream& operator<<(std::ostream& os, RpHash const& v);

}  // namespace Routing::Pim
