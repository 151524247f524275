#pragma once
// Lanx::Ip6Addr: a 16-byte IPv6 address in network byte order, and the 32-bit address hash that
// every address-keyed table of the stack uses. The hash is deterministic across processes and
// hosts (it reads the bytes in network order), because shared-memory tables written by one process
// are probed by others.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Kiv/Hash.h"

namespace Lanx {

class Ip6Addr {
 public:
  constexpr Ip6Addr() = default;
  explicit constexpr Ip6Addr(std::array<std::uint8_t, 16> const& bytes) : bytes_(bytes) {}

  std::array<std::uint8_t, 16> const& bytes() const noexcept { return bytes_; }

  // Hash of 16 address bytes: MurmurHash3-style mixing of the four big-endian words followed by a
  // full avalanche, so nearby addresses (which differ in the last byte) spread over all bits.
  // Inline: a restarted writer hashes every stored key while it validates its table.
  static std::uint32_t hash(std::uint8_t const* bytes16) noexcept {
    std::uint32_t h = 0x9747b28cu;
    for (int i = 0; i < 16; i += 4) {
      std::uint32_t k;
      std::memcpy(&k, bytes16 + i, 4);
      if constexpr (std::endian::native == std::endian::little) k = __builtin_bswap32(k);
      k *= 0xcc9e2d51u;
      k = std::rotl(k, 15);
      k *= 0x1b873593u;
      h ^= k;
      h = std::rotl(h, 13);
      h = h * 5 + 0xe6546b64u;
    }
    return Kiv::mix32(h ^ 16u);
  }
  std::uint32_t hash() const noexcept { return hash(bytes_.data()); }

  friend bool operator==(Ip6Addr const&, Ip6Addr const&) = default;
  friend auto operator<=>(Ip6Addr const&, Ip6Addr const&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1);
static_assert(std::is_trivially_copyable_v<Ip6Addr> && std::is_standard_layout_v<Ip6Addr>);

}  // namespace Lanx
