#pragma once
// Lanx::Ip6Addr: a 16-byte IPv6 address in network byte order, and the 32-bit address hash that
// every address-keyed table of the stack uses. The hash is deterministic across processes and
// hosts (it reads the bytes in network order), because shared-memory tables written by one process
// are probed by others.

#include <array>
#include <cstdint>
#include <type_traits>

namespace Lanx {

class Ip6Addr {
 public:
  constexpr Ip6Addr() = default;
  explicit constexpr Ip6Addr(std::array<std::uint8_t, 16> const& bytes) : bytes_(bytes) {}

  std::array<std::uint8_t, 16> const& bytes() const noexcept { return bytes_; }

  // Hash of 16 address bytes: MurmurHash3-style mixing of the four big-endian words followed by a
  // full avalanche, so nearby addresses (which differ in the last byte) spread over all bits.
  static std::uint32_t hash(std::uint8_t const* bytes16) noexcept;
  std::uint32_t hash() const noexcept { return hash(bytes_.data()); }

  friend bool operator==(Ip6Addr const&, Ip6Addr const&) = default;
  friend auto operator<=>(Ip6Addr const&, Ip6Addr const&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1);
static_assert(std::is_trivially_copyable_v<Ip6Addr> && std::is_standard_layout_v<Ip6Addr>);

}  // namespace Lanx
