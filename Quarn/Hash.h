#pragma once
// The table library's own hash of bytes: slot header checksums and debug handler names. Readers
// recompute what the writer stored, so it must be the same in every process and build.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Quarn::Util {

// Deterministic 32-bit hash of `length` bytes.
std::uint32_t hash(void const* bytes, std::size_t length) noexcept;
inline std::uint32_t hash(std::string_view text) noexcept {
  return hash(text.data(), text.size());
}

}  // namespace Quarn::Util
