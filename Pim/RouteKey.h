#pragma once
// Routing::Pim::RouteKey: the key of a multicast route, (source, group); a (*, G) route has the
// unspecified address of the group's family as its source. A fixed-size value: 40 bytes.

#include <iosfwd>
#include <type_traits>

#include "Lanx/IpGenAddr.h"

namespace Routing::Pim {

class RouteKey {
 public:
  RouteKey() = default;
  RouteKey(Lanx::IpGenAddr const& source, Lanx::IpGenAddr const& group) noexcept
      : source_(source), group_(group) {}

  Lanx::IpGenAddr const& source() const noexcept { return source_; }
  Lanx::IpGenAddr const& group() const noexcept { return group_; }

  friend bool operator==(RouteKey const&, RouteKey const&) = default;

 private:
  Lanx::IpGenAddr source_;
  Lanx::IpGenAddr group_;
};

static_assert(sizeof(RouteKey) == 40 && std::is_trivially_copyable_v<RouteKey>);

// "(source, group)"
std::ostream& operator<<(std::ostream& os, RouteKey const& key);

}  // namespace Routing::Pim
