#include "Quarn/Hash.h"

#include <cstring>

namespace Quarn::Util {

// 64-bit multiply-xorshift over 8-byte words, folded to 32 bits. Byte order is the host's
// (little-endian), which every process of the table shares.
std::uint32_t hash(void const* bytes, std::size_t length) noexcept {
  constexpr std::uint64_t kMul = 0x9E3779B97F4A7C15ull;
  auto const* p = static_cast<unsigned char const*>(bytes);
  std::uint64_t h = 0xCBF29CE484222325ull ^ (length * kMul);
  while (length >= 8) {
    std::uint64_t w;
    std::memcpy(&w, p, 8);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
    p += 8;
    length -= 8;
  }
  if (length > 0) {
    std::uint64_t w = 0;
    std::memcpy(&w, p, length);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
  }
  h *= kMul;
  h ^= h >> 32;
  return static_cast<std::uint32_t>(h);
}

}  // namespace Quarn::Util
