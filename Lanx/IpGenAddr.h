#pragma once
// Lanx::IpGenAddr: an IPv4 or IPv6 address, or unset. It sits inside shared-memory records, so it
// is a self-contained fixed-size value: a 32-bit address-family word followed by 16 address bytes
// in network order (20 bytes, 4-byte alignment, no pointers). An IPv4 address occupies the first
// 4 of the 16 bytes and the rest are zero. The default value is unset: family 0, all bytes zero.
//
// Equality compares all five words; ordering is by family, then by the bytes. `hash()` is the
// Ip6Addr hash of the 16 bytes alone: the family is deliberately not mixed in, so an IPv4 and an
// IPv6 address with the same stored bytes hash alike (equality still tells them apart).
//
// Text: dotted quad for IPv4, RFC 5952 canonical form for IPv6 (lower case, longest run of zero
// groups as "::", IPv4-mapped addresses with a dotted tail); the unset address is the empty text.
// Parsing accepts any valid RFC 4291 spelling and refuses anything else with Kiv::RangeException.

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kiv/String8.h"
#include "Lanx/Ip6Addr.h"

namespace Kiv::NboAttrLog {
class Out;
class Cursor;
}  // namespace Kiv::NboAttrLog

namespace Lanx {

class IpGenAddr {
 public:
  // Linux address family numbers, so the word can be handed to the kernel unchanged.
  enum Family : std::uint32_t { unset = 0, ipv4 = 2, ipv6 = 10 };

  constexpr IpGenAddr() = default;
  // From host-order IPv4 value (0xef010101 is 239.1.1.1).
  static IpGenAddr ipv4Addr(std::uint32_t hostOrder) noexcept;
  // From 16 network-order bytes.
  static IpGenAddr ipv6Addr(std::array<std::uint8_t, 16> const& bytes) noexcept;
  explicit IpGenAddr(Ip6Addr const& addr) noexcept;
  // Parses `text`; throws Kiv::RangeException naming the text when it is no address.
  explicit IpGenAddr(std::string_view text);
  // The unspecified address ("0.0.0.0" or "::") of `family`; unset for any other family.
  static IpGenAddr unspecified(Family family) noexcept;

  Family family() const noexcept { return static_cast<Family>(family_); }
  bool isIpv4() const noexcept { return family_ == ipv4; }
  bool isIpv6() const noexcept { return family_ == ipv6; }
  bool isUnset() const noexcept { return family_ == unset; }
  // 32 for IPv4, 128 for IPv6, 0 when unset.
  unsigned maxPrefixLength() const noexcept {
    return family_ == ipv4 ? 32 : family_ == ipv6 ? 128 : 0;
  }
  std::array<std::uint8_t, 16> const& bytes() const noexcept { return bytes_; }
  // The IPv4 address in host order (0 unless IPv4).
  std::uint32_t ipv4HostOrder() const noexcept;

  std::uint32_t hash() const noexcept { return Ip6Addr::hash(bytes_.data()); }
  std::string toString() const;

  // The same as member-wise comparison (family, then the bytes in order), in a few word
  // compares: addresses are the keys of every table lookup, and a byte-wise compare is a call.
  friend bool operator==(IpGenAddr const& a, IpGenAddr const& b) noexcept {
    return a.family_ == b.family_ && a.word(0) == b.word(0) && a.word(1) == b.word(1);
  }
  friend std::strong_ordering operator<=>(IpGenAddr const& a, IpGenAddr const& b) noexcept {
    if (a.family_ != b.family_) return a.family_ <=> b.family_;
    if (a.word(0) != b.word(0)) return a.word(0) <=> b.word(0);
    return a.word(1) <=> b.word(1);
  }

 private:
  // Bytes [8i, 8i + 8) as one big-endian number: ordering the words orders the bytes.
  std::uint64_t word(int i) const noexcept {
    std::uint64_t w;
    std::memcpy(&w, bytes_.data() + 8 * i, sizeof w);
    if constexpr (std::endian::native == std::endian::little) w = __builtin_bswap64(w);
    return w;
  }

  std::uint32_t family_ = unset;
  std::array<std::uint8_t, 16> bytes_{};
};

static_assert(sizeof(IpGenAddr) == 20 && alignof(IpGenAddr) == 4);
static_assert(std::is_trivially_copyable_v<IpGenAddr> && std::is_standard_layout_v<IpGenAddr>);

std::ostream& operator<<(std::ostream& os, IpGenAddr const& addr);
// The address's text inside a value's text form: the same as toString().
inline Kiv::String8 valueToStrep(IpGenAddr const& addr) {
  return addr.toString();
}

// Reads one address at `cursor` (a bare token of hex digits, '.' and ':', or the same between
// single quotes; an empty token is the unset address) and advances the cursor past it.
IpGenAddr sequenceToValue(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end,
                          IpGenAddr const* tag);

// Attribute-log form: the family word (u32), then 4 address bytes for IPv4, 16 for IPv6, none
// when unset. Reading refuses any other family (Kiv::AttrLogRecordException).
void nboWrite(Kiv::NboAttrLog::Out& out, IpGenAddr const& v);
IpGenAddr nboRead(Kiv::NboAttrLog::Cursor& in, IpGenAddr const*);

}  // namespace Lanx
