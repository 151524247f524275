#pragma once
// Quarn::Group: the flat copy of one multicast group kept in the shared-memory "group" table.
//
// The layout is a file format shared between processes: 4-byte packing (the double sits at a
// 4-byte boundary), 36 bytes, pinned below. A plain value (no pointers), copied byte for byte into
// table slots. Equality compares every field, key first; a NaN creationTime never compares equal.
//
// Text: Value('Routing::Pim::Bidir::Quarn::Group', ** {'key': 239.1.1.1, 'creationTime': 12.5,
// 'upJoinState': 'upJoined', 'inactive': False}); a field the text leaves out keeps its default.

#include <cstddef>
#include <iosfwd>
#include <tuple>
#include <type_traits>

#include "Bidir/States.h"
#include "Kiv/Attribute.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir::Quarn {

#pragma pack(push, 4)
struct Group {
  static constexpr char const* typeName = "Routing::Pim::Bidir::Quarn::Group";
  using UpJoinState = GroupStates::UpJoinState;

  Group() = default;
  // Reads one record at the cursor and leaves the cursor behind it.
  Group(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end);

  Lanx::IpGenAddr key;
  double creationTime = 0.0;  // seconds, as Bidir::Group::creationTime
  UpJoinState upJoinState = GroupStates::upNotJoined;
  bool inactive = false;

  friend bool operator==(Group const& a, Group const& b) noexcept {
    return a.key == b.key && a.creationTime == b.creationTime && a.upJoinState == b.upJoinState &&
           a.inactive == b.inactive;
  }
  friend bool operator!=(Group const& a, Group const& b) noexcept { return !(a == b); }

  static Kiv::TypeDescriptor const& _fwkType();

  static constexpr auto attributes() {
    return std::tuple{
        Kiv::field<&Group::key>("key", 2, "Lanx::IpGenAddr"),
        Kiv::field<&Group::creationTime>("creationTime", 3, "F64"),
        Kiv::field<&Group::upJoinState>("upJoinState", 4,
                                        "Routing::Pim::Bidir::Group::UpJoinState"),
        Kiv::field<&Group::inactive>("inactive", 5, "Bool"),
    };
  }
};
#pragma pack(pop)

static_assert(sizeof(Group) == 36 && alignof(Group) == 4);
static_assert(offsetof(Group, key) == 0);
static_assert(offsetof(Group, creationTime) == 20);
static_assert(offsetof(Group, upJoinState) == 28);
static_assert(offsetof(Group, inactive) == 32);
static_assert(std::is_trivially_copyable_v<Group> && std::is_standard_layout_v<Group>);

Kiv::String8 valueToStrep(Group const& v);
std::ostream& operator<<(std::ostream& os, Group const& v);

}  // namespace Routing::Pim::Bidir::Quarn
