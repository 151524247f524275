#pragma once
// The two RFC 5015 join-state enumerations, as unscoped 32-bit enums inside base structs: `Group`
// derives from GroupStates and `GroupIntf` from GroupIntfStates, so both `Group::UpJoinState` and
// `Group::upJoined` name them. Shared-memory records include this header, so it must not include
// the entity headers.
//
// The numeric conversions throw Kiv::RangeException with the qualified type name
// ("Group::UpJoinState"); the name conversions (exact, case-sensitive) throw with the unqualified
// one ("UpJoinState"). The two texts differ on purpose: callers tell the two failures apart.

#include <cstdint>
#include <iosfwd>

#include "Kiv/String8.h"

namespace Kiv {
class TypeDescriptor;
}

namespace Routing::Pim::Bidir {

struct GroupStates {
  enum UpJoinState : std::uint32_t { upNotJoined = 0, upJoined = 1 };
  static UpJoinState UpJoinStateInstance(unsigned int value);
  static UpJoinState UpJoinStateInstance(Kiv::String8 const& name);
  // The enumerator's name, or nullptr for a value without one.
  static char const* upJoinStateName(UpJoinState value) noexcept;
  static Kiv::TypeDescriptor const& _fwkType_UpJoinState();
};

struct GroupIntfStates {
  enum JoinState : std::uint32_t { noInfo = 0, prunePending = 1, joined = 2 };
  static JoinState JoinStateInstance(unsigned int value);
  static JoinState JoinStateInstance(Kiv::String8 const& name);
  static char const* joinStateName(JoinState value) noexcept;
  static Kiv::TypeDescriptor const& _fwkType_JoinState();
};

static_assert(sizeof(GroupStates::UpJoinState) == 4 && sizeof(GroupIntfStates::JoinState) == 4);

Kiv::String8 stringValue(GroupStates::UpJoinState v);
Kiv::String8 stringValue(GroupIntfStates::JoinState v);
Kiv::String8 valueToStrep(GroupStates::UpJoinState v);
Kiv::String8 valueToStrep(GroupIntfStates::JoinState v);
std::ostream& operator<<(std::ostream& os, GroupStates::UpJoinState v);
std::ostream& operator<<(std::ostream& os, GroupIntfStates::JoinState v);
GroupStates::UpJoinState sequenceToValue(Kiv::String8::IteratorConst& cursor,
                                         Kiv::String8::IteratorConst end,
                                         GroupStates::UpJoinState const* tag);
GroupIntfStates::JoinState sequenceToValue(Kiv::String8::IteratorConst& cursor,
                                           Kiv::String8::IteratorConst end,
                                           GroupIntfStates::JoinState const* tag);

}  // namespace Routing::Pim::Bidir
