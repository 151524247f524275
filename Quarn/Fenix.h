#pragma once
// The fenix id: the 32-bit incarnation number that ties all files of one incarnation of a table
// together. A writer that finds no id makes one from its pid and a process-wide counter; the id
// is stored in every table header and in the table's "fenix" file, which readers watch to learn
// of a new incarnation.

#include <cstdint>
#include <string>

#include "Mem/Shared.h"

namespace Quarn {
namespace Util {

// Packs the low 16 bits of a process id and an instance counter into a fenix id that is never 0.
std::uint32_t encodeFenix(std::uint32_t pidLow16, std::uint32_t instanceId) noexcept;
// The process-wide instance counter used by `encodeFenix`: returns 0 first, then 1, 2, ...
std::uint32_t nextInstanceId() noexcept;

}  // namespace Util

// The "fenix" file of a table: its 32-bit incarnation id, 4 bytes little-endian, replaced
// atomically so that a reader never sees a half-written id.
struct FenixFile {
  // 0 when the file is missing or malformed.
  static std::uint32_t read(std::string const& rootPath);
  // False on failure (errno set).
  static bool write(std::string const& rootPath, std::uint32_t fenix,
                    unsigned fileMode = Mem::defaultFileMode);
};

}  // namespace Quarn
