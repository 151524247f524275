#pragma once
// Routing::Pim::RpHash: one record of the PIM agent's RP hash table: the group range (the table
// key) and the RP that serves it. A fixed-size record shared between processes: 44 bytes, 4-byte
// alignment, pinned below.

#include <cstddef>
#include <type_traits>

#include "Lanx/IpGenAddr.h"
#include "Lanx/IpGenPrefix.h"

namespace Routing::Pim {

struct RpHash {
  static constexpr char const* typeName = "Routing::Pim::RpHash";

  Lanx::IpGenPrefix key;  // the group range
  Lanx::IpGenAddr rp;     // the RP address serving it

  friend bool operator==(RpHash const&, RpHash const&) = default;
};

static_assert(sizeof(RpHash) == 44 && alignof(RpHash) == 4);
static_assert(offsetof(RpHash, key) == 0 && offsetof(RpHash, rp) == 24);
static_assert(std::is_trivially_copyable_v<RpHash> && std::is_standard_layout_v<RpHash>);

}  // namespace Routing::Pim
