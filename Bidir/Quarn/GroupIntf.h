#pragma once
// Quarn::GroupIntf: the flat copy of one (group, interface) pair kept in the shared-memory
// "groupIntf" table.
//
// The layout is a file format shared between processes: 4-byte packing, 48 bytes, pinned below.
// A plain value, copied byte for byte into table slots. Equality compares every field, key
// first; a NaN lastJoinReceived never compares equal.
//
// Text: Value('Routing::Pim::Bidir::Quarn::GroupIntf', ** {'key': <GroupIntfKey text>, 'forward':
// True, 'joinState': 'joined', 'lastJoinReceived': 3.25, 'localReceiverInclude': False, 'iAmDf':
// True}); a field the text leaves out keeps its default.

#include <cstddef>
#include <iosfwd>
#include <tuple>
#include <type_traits>

#include "Bidir/GroupIntfKey.h"
#include "Bidir/States.h"
#include "Kiv/Attribute.h"

namespace Routing::Pim::Bidir::Quarn {

#pragma pack(push, 4)
struct GroupIntf {
  static constexpr char const* typeName = "Routing::Pim::Bidir::Quarn::GroupIntf";
  using JoinState = GroupIntfStates::JoinState;

  GroupIntf() = default;
  // Reads one record at the cursor and leaves the cursor behind it.
  GroupIntf(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end);

  GroupIntfKey key;
  bool forward = false;
  JoinState joinState = GroupIntfStates::noInfo;
  double lastJoinReceived = 0.0;  // seconds
  bool localReceiverInclude = false;
  bool iAmDf = false;

  friend bool operator==(GroupIntf const& a, GroupIntf const& b) noexcept {
    return a.key == b.key && a.forward == b.forward && a.joinState == b.joinState &&
           a.lastJoinReceived == b.lastJoinReceived &&
           (a.localReceiverInclude == b.localReceiverInclude && a.iAmDf == b.iAmDf);
  }
  friend bool operator!=(GroupIntf const& a, GroupIntf const& b) noexcept { return !(a == b); }

  static Kiv::TypeDescriptor const& _fwkType();

  static constexpr auto attributes() {
    return std::tuple{
        Kiv::field<&GroupIntf::key>("key", 2, GroupIntfKey::typeName),
        Kiv::field<&GroupIntf::forward>("forward", 3, "Bool"),
        Kiv::field<&GroupIntf::joinState>("joinState", 4,
                                          "Routing::Pim::Bidir::GroupIntf::JoinState"),
        Kiv::field<&GroupIntf::lastJoinReceived>("lastJoinReceived", 5, "F64"),
        Kiv::field<&GroupIntf::localReceiverInclude>("localReceiverInclude", 6, "Bool"),
        Kiv::field<&GroupIntf::iAmDf>("iAmDf", 7, "Bool"),
    };
  }
};
#pragma pack(pop)

static_assert(sizeof(GroupIntf) == 48 && alignof(GroupIntf) == 4);
static_assert(offsetof(GroupIntf, key) == 0);
static_assert(offsetof(GroupIntf, forward) == 28);
static_assert(offsetof(GroupIntf, joinState) == 32);
static_assert(offsetof(GroupIntf, lastJoinReceived) == 36);
static_assert(offsetof(GroupIntf, localReceiverInclude) == 44);
static_assert(offsetof(GroupIntf, iAmDf) == 45);
static_assert(std::is_trivially_copyable_v<GroupIntf> && std::is_standard_layout_v<GroupIntf>);

Kiv::String8 valueToStrep(GroupIntf const& v);
std::ostream& operator<<(std::ostream& os, GroupIntf const& v);

}  // namespace Routing::Pim::Bidir::Quarn
