#pragma once
// Quarn::Group: the flat copy of one multicast group kept in the shared-memory "group" table.
//
// The layout is a file format shared between processes: 4-byte packing (the double sits at a
// 4-byte boundary), 36 bytes, pinned below. A plain value (no pointers), copied byte for byte into
// table slots. Equality compares every field, key first; a NaN creationTime never compares equal.

#include <cstddef>
#include <type_traits>

#include "Bidir/States.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir::Quarn {

#pragma pack(push, 4)
struct Group {
  static constexpr char const* typeName = "Routing::Pim::Bidir::Quarn::Group";
  using UpJoinState = GroupStates::UpJoinState;

  Lanx::IpGenAddr key;
  double creationTime = 0.0;  // seconds, as Bidir::Group::creationTime
  UpJoinState upJoinState = GroupStates::upNotJoined;
  bool inactive = false;

  friend bool operator==(Group const& a, Group const& b) noexcept {
    return a.key == b.key && a.creationTime == b.creationTime && a.upJoinState == b.upJoinState &&
           a.inactive == b.inactive;
  }
  friend bool operator!=(Group const& a, Group const& b) noexcept { return !(a == b); }
};
#pragma pack(pop)

static_assert(sizeof(Group) == 36 && alignof(Group) == 4);
static_assert(offsetof(Group, key) == 0);
static_assert(offsetof(Group, creationTime) == 20);
static_assert(offsetof(Group, upJoinState) == 28);
static_assert(offsetof(Group, inactive) == 32);
static_assert(std::is_trivially_copyable_v<Group> && std::is_standard_layout_v<Group>);

}  // namespace Routing::Pim::Bidir::Quarn
