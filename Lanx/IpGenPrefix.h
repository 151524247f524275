#pragma once
// Lanx::IpGenPrefix: an address prefix ("10.0.0.0/8", "ff0e::/16"). A fixed-size, trivially
// copyable value (24 bytes, 4-byte alignment): the network address with every bit past the length
// cleared, and the length. Built from an address alone it is the host prefix (/32 or /128).
// The unset prefix holds the unset address and length 0.

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "Lanx/IpGenAddr.h"

namespace Lanx {

class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  // The host prefix of `addr`. Inline: the key of every group's RP hash lookup.
  explicit IpGenPrefix(IpGenAddr const& addr) noexcept
      : addr_(addr), length_(addr.maxPrefixLength()) {}
  // `addr` masked to `length` bits; a length beyond the family's width throws Kiv::RangeException.
  IpGenPrefix(IpGenAddr const& addr, unsigned length);
  // Parses "address/length" (or a bare address, meaning the host prefix).
  explicit IpGenPrefix(std::string_view text);

  IpGenAddr const& address() const noexcept { return addr_; }
  unsigned length() const noexcept { return length_; }
  bool contains(IpGenAddr const& addr) const noexcept;

  std::uint32_t hash() const noexcept { return addr_.hash() ^ (length_ * 0x9e3779b1u); }
  std::string toString() const;

  friend bool operator==(IpGenPrefix const&, IpGenPrefix const&) = default;
  friend std::strong_ordering operator<=>(IpGenPrefix const&, IpGenPrefix const&) = default;

 private:
  IpGenAddr addr_;
  std::uint32_t length_ = 0;
};

static_assert(sizeof(IpGenPrefix) == 24 && alignof(IpGenPrefix) == 4);
static_assert(std::is_trivially_copyable_v<IpGenPrefix> && std::is_standard_layout_v<IpGenPrefix>);

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& prefix);
// The prefix's text inside a value's text form: the same as toString().
inline Kiv::String8 valueToStrep(IpGenPrefix const& prefix) {
  return prefix.toString();
}

}  // namespace Lanx
