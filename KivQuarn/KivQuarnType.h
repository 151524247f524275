#pragma once
// The role of a process towards a table bound to an entity. The values are those of the engine's
// modes (Quarn::QuarnType), so a role converts to the mode its tables are mounted in; `writer`
// (0) is the role of the agent that owns the tables.

#include <cstdint>

#include "Quarn/QuarnBase.h"

namespace KivQuarn {

enum class KivQuarnType : std::uint32_t { writer = 0, shadow = 1, reader = 2, keyshadow = 3 };

constexpr Quarn::QuarnType quarnType(KivQuarnType role) noexcept {
  return static_cast<Quarn::QuarnType>(role);
}

}  // namespace KivQuarn
