#pragma once
// The finalizers that spread every input bit over every output bit (xor-shift-multiply rounds),
// written once: mix32 ends the 32-bit address hash, mix64 hashes small fixed-size values
// (interface identifiers, addresses of live entities). Their results are stored in shared table
// files (bucket indexes), so they must never change.

#include <cstdint>

namespace Kiv {

constexpr std::uint32_t mix32(std::uint32_t h) noexcept {
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

constexpr std::uint64_t mix64(std::uint64_t x) noexcept {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ULL;
  x ^= x >> 33;
  return x;
}

}  // namespace Kiv
