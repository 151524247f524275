#include "Bidir/States.h"

#include <array>
#include <string_view>

#include "Kiv/Exception.h"

namespace Routing::Pim::Bidir {

namespace {

// One table per enumeration, indexed by value; both conversions and the names read it.
constexpr std::array<char const*, 2> kUpJoinStateNames = {"upNotJoined", "upJoined"};
constexpr std::array<char const*, 3> kJoinStateNames = {"noInfo", "prunePending", "joined"};

template <class Enum, std::size_t N>
Enum byValue(std::array<char const*, N> const&, unsigned int value, char const* error) {
  if (value >= N) Kiv::throwRangeException(error);
  return static_cast<Enum>(value);
}

template <class Enum, std::size_t N>
Enum byName(std::array<char const*, N> const& names, Kiv::String8 const& name, char const* error) {
  for (std::size_t i = 0; i < N; ++i) {
    if (name.view() == names[i]) return static_cast<Enum>(i);
  }
  Kiv::throwRangeException(error);
}

template <std::size_t N>
char const* nameOf(std::array<char const*, N> const& names, std::uint32_t value) noexcept {
  return value < N ? names[value] : nullptr;
}

}  // namespace

GroupStates::UpJoinState GroupStates::UpJoinStateInstance(unsigned int value) {
  return byValue<UpJoinState>(kUpJoinStateNames, value, "Group::UpJoinState");
}

GroupStates::UpJoinState GroupStates::UpJoinStateInstance(Kiv::String8 const& name) {
  return byName<UpJoinState>(kUpJoinStateNames, name, "UpJoinState");
}

char const* GroupStates::upJoinStateName(UpJoinState value) noexcept {
  return nameOf(kUpJoinStateNames, value);
}

GroupIntfStates::JoinState GroupIntfStates::JoinStateInstance(unsigned int value) {
  return byValue<JoinState>(kJoinStateNames, value, "GroupIntf::JoinState");
}

GroupIntfStates::JoinState GroupIntfStates::JoinStateInstance(Kiv::String8 const& name) {
  return byName<JoinState>(kJoinStateNames, name, "JoinState");
}

char const* GroupIntfStates::joinStateName(JoinState value) noexcept {
  return nameOf(kJoinStateNames, value);
}

}  // namespace Routing::Pim::Bidir
