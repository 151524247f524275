#include "Bidir/States.h"

#include <array>
#include <string_view>

#include <ostream>

#include "Kiv/Text.h"

namespace Routing::Pim::Bidir {

namespace {

// One description per enumeration: its names indexed by value and the two error texts. Both
// conversions and the name lookup read it.
template <class Enum, std::size_t N>
struct EnumText {
  std::array<char const*, N> names;
  char const* qualifiedName;    // numeric conversion error
  char const* unqualifiedName;  // name conversion error

  Enum byValue(unsigned int value) const {
    if (value >= N) Kiv::throwRangeException(qualifiedName);
    return static_cast<Enum>(value);
  }
  Enum byName(Kiv::String8 const& name) const {
    for (std::size_t i = 0; i < N; ++i) {
      if (name.view() == names[i]) return static_cast<Enum>(i);
    }
    Kiv::throwRangeException(unqualifiedName);
  }
  char const* nameOf(std::uint32_t value) const noexcept {
    return value < N ? names[value] : nullptr;
  }
  Kiv::String8 stringValue(std::uint32_t value) const {
    if (char const* name = nameOf(value)) return name;
    return Kiv::format("%s(%d)", qualifiedName, static_cast<int>(value));
  }
  Enum read(Kiv::TextIt& cursor, Kiv::TextIt end) const {
    return byName(Kiv::sequenceToValue<Kiv::String8>(cursor, end));
  }
};

constexpr EnumText<GroupStates::UpJoinState, 2> kUpJoinState{
    {"upNotJoined", "upJoined"}, "Group::UpJoinState", "UpJoinState"};
constexpr EnumText<GroupIntfStates::JoinState, 3> kJoinState{
    {"noInfo", "prunePending", "joined"}, "GroupIntf::JoinState", "JoinState"};

}  // namespace

auto GroupStates::UpJoinStateInstance(unsigned int v) -> UpJoinState {
  return kUpJoinState.byValue(v);
}
auto GroupStates::UpJoinStateInstance(Kiv::String8 const& name) -> UpJoinState {
  return kUpJoinState.byName(name);
}
char const* GroupStates::upJoinStateName(UpJoinState v) noexcept {
  return kUpJoinState.nameOf(v);
}

auto GroupIntfStates::JoinStateInstance(unsigned int v) -> JoinState {
  return kJoinState.byValue(v);
}
auto GroupIntfStates::JoinStateInstance(Kiv::String8 const& name) -> JoinState {
  return kJoinState.byName(name);
}
char const* GroupIntfStates::joinStateName(JoinState v) noexcept {
  return kJoinState.nameOf(v);
}

Kiv::String8 stringValue(GroupStates::UpJoinState v) {
  return kUpJoinState.stringValue(v);
}
Kiv::String8 stringValue(GroupIntfStates::JoinState v) {
  return kJoinState.stringValue(v);
}
namespace {
// Appended in place: GCC 12 at -O3 warns (-Wrestrict) on "'" + a temporary string.
template <class E>
Kiv::String8 quoted(E v) {
  Kiv::String8 text("'");
  text += stringValue(v);
  text += '\'';
  return text;
}
}  // namespace
Kiv::String8 valueToStrep(GroupStates::UpJoinState v) {
  return quoted(v);
}
Kiv::String8 valueToStrep(GroupIntfStates::JoinState v) {
  return quoted(v);
}
std::ostream& operator<<(std::ostream& os, GroupStates::UpJoinState v) {
  return os << stringValue(v);
}
std::ostream& operator<<(std::ostream& os, GroupIntfStates::JoinState v) {
  return os << stringValue(v);
}
GroupStates::UpJoinState sequenceToValue(Kiv::TextIt& cursor, Kiv::TextIt end,
                                         GroupStates::UpJoinState const*) {
  return kUpJoinState.read(cursor, end);
}
GroupIntfStates::JoinState sequenceToValue(Kiv::TextIt& cursor, Kiv::TextIt end,
                                           GroupIntfStates::JoinState const*) {
  return kJoinState.read(cursor, end);
}

}  // namespace Routing::Pim::Bidir
