#pragma once
// Where an iteration stands: the slot it returned last and that slot's bucket. A hint is only a
// shortcut; iteration stays correct when the slot was removed or reused meanwhile.

#include <cstdint>
#include <ostream>

#include "Quarn/SlotTable.h"

namespace Quarn {

struct IterHint {
  std::uint32_t slot = noIndex;
  std::uint32_t bucket = 0;
};

inline std::ostream& operator<<(std::ostream& os, IterHint const& hint) {
  return os << "IterHint{ slot " << hint.slot << ", bucket " << hint.bucket << " }";
}

}  // namespace Quarn
