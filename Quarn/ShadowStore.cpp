#include "Quarn/ShadowStore.h"

namespace Quarn::Shadow {

void SlotCounters::inc(std::uint32_t i) noexcept {
  unsigned const k = rangeOf(i);
  if (counters_[k]++ == 0) nonZeroCounters_ |= 1u << k;
}

void SlotCounters::dec(std::uint32_t i) noexcept {
  unsigned const k = rangeOf(i);
  if (counters_[k] == 0) return;  // not counted: keep the mask consistent with the counters
  if (--counters_[k] == 0) nonZeroCounters_ &= ~(1u << k);
}

void SlotCounters::clear() noexcept {
  std::fill_n(counters_, 32, 0u);
  nonZeroCounters_ = 0;
}

std::uint64_t SlotCounters::largestOccupied(Jorv::DebugHandler& dh) const {
  KIV_TRACE(dh, 8, "SlotCounters::largestOccupied() nonZeroCounters_:0x", std::hex,
            nonZeroCounters_, std::dec);
  unsigned const msb = nonZeroCounters_ == 0 ? 0 : unsigned(std::bit_width(nonZeroCounters_)) - 1;
  std::uint64_t const n = std::uint64_t(1) << (msb + rangeShift);
  KIV_TRACE(dh, 8, "SlotCounters::largestOccupied() shrinkable to newNumSlots:", n, " msb:", msb);
  return n;
}

}  // namespace Quarn::Shadow
