#pragma once
// Lanx::IntfId: an interface identifier made from its name ("Ethernet3/1", "Vlan100",
// "Port-Channel10", "Loopback0", "Management1"). It is stored in shared-memory records, so it is a
// self-contained 8-byte value with 4-byte alignment and no pointers: a kind word and a word of
// packed numeric components. The empty name is the default identifier (both words zero).
//
// Kinds and the numbers they accept:
//   Ethernet      1 to 3 components "a", "a/b", "a/b/c", each 1..1023 (packed 10 bits each, first
//                 component highest, so Ethernet3 < Ethernet3/1 < Ethernet3/2 < Ethernet4)
//   Vlan          1..4094
//   Port-Channel  1..999999
//   Loopback      0..999999
//   Management    0..999999
// Any other name, or a number outside its range, is refused with Kiv::RangeException. Ordering is
// by kind, then by the packed number; text round-trips (name -> id -> the same canonical name).

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/String8.h"

namespace Kiv::NboAttrLog {
class Out;
class Cursor;
}  // namespace Kiv::NboAttrLog

namespace Lanx {

class IntfId {
 public:
  enum Kind : std::uint32_t {
    none = 0,
    ethernet = 1,
    vlan = 2,
    portChannel = 3,
    loopback = 4,
    management = 5,
  };

  constexpr IntfId() = default;
  // Parses an interface name; "" gives the default identifier.
  explicit IntfId(std::string_view name);
  IntfId(char const* name) : IntfId(std::string_view(name)) {}

  Kind kind() const noexcept { return static_cast<Kind>(kind_); }
  std::uint32_t packed() const noexcept { return packed_; }
  bool isDefault() const noexcept { return kind_ == none && packed_ == 0; }

  std::string name() const;
  std::string toString() const { return name(); }
  // Both words through a 64-bit multiplicative mix; the high half carries the well-mixed bits.
  std::uint32_t hash() const noexcept {
    std::uint64_t const x = Kiv::mix64((std::uint64_t{kind_} << 32) | packed_);
    return static_cast<std::uint32_t>(x >> 32) ^ static_cast<std::uint32_t>(x);
  }

  friend bool operator==(IntfId const&, IntfId const&) = default;
  friend std::strong_ordering operator<=>(IntfId const&, IntfId const&) = default;

 private:
  std::uint32_t kind_ = none;
  std::uint32_t packed_ = 0;
};

static_assert(sizeof(IntfId) == 8 && alignof(IntfId) == 4);
static_assert(std::is_trivially_copyable_v<IntfId> && std::is_standard_layout_v<IntfId>);

std::ostream& operator<<(std::ostream& os, IntfId const& intf);
// The interface's text inside a value's text form: its name.
inline Kiv::String8 valueToStrep(IntfId const& intf) {
  return intf.name();
}

// Reads one interface name at `cursor` (letters, digits, '-', '/', or the same between single
// quotes; an empty token is the default identifier) and advances the cursor past it.
IntfId sequenceToValue(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end,
                       IntfId const* tag);

// Attribute-log form: the interface name as a string; reading parses it as the constructor does.
void nboWrite(Kiv::NboAttrLog::Out& out, IntfId const& v);
IntfId nboRead(Kiv::NboAttrLog::Cursor& in, IntfId const*);

}  // namespace Lanx
