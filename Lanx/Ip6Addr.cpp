#include "Lanx/Ip6Addr.h"

#include <bit>

#include "Kiv/Hash.h"

namespace Lanx {

std::uint32_t Ip6Addr::hash(std::uint8_t const* b) noexcept {
  std::uint32_t h = 0x9747b28cu;
  for (int i = 0; i < 16; i += 4) {
    std::uint32_t k = (std::uint32_t{b[i]} << 24) | (std::uint32_t{b[i + 1]} << 16) |
                      (std::uint32_t{b[i + 2]} << 8) | std::uint32_t{b[i + 3]};
    k *= 0xcc9e2d51u;
    k = std::rotl(k, 15);
    k *= 0x1b873593u;
    h ^= k;
    h = std::rotl(h, 13);
    h = h * 5 + 0xe6546b64u;
  }
  return Kiv::mix32(h ^ 16u);
}

}  // namespace Lanx
