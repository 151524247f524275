#pragma once
// The value bracket: how the writer publishes a slot's value and how a reader copies it without a
// lock, seqlock style, written once for every place that does either.
//
// A slot's flags word holds OCCUPIED in bit 0 and a write counter above it, advanced in steps of
// 2; bit 1 (LOOKASIDE) is therefore set exactly while a write is under way, and the value being
// written is then staged, whole, in the lookaside slot.
//
// Writer (the only one that stores to a flags word, so its relaxed read of it is exact):
//   stageValue(lookaside, v)         release fence, copy v       (reachable slot only)
//   f = beginValueWrite(slot)        flags = f + 2 (release), then a release fence
//   copy v into the slot's value area (relaxed word stores)
//   endValueWrite(slot, f)           flags = (f + 4) | OCCUPIED (release)
// Reader:
//   f = readValueBegin(slot)         flags (acquire)
//   do { copy from the slot, or from the lookaside slot while f has LOOKASIDE }
//   while (readValueRetry(slot, f))  acquire fence, flags again (relaxed); changed: f = new flags
// Why equal flags mean a consistent copy: a copy that saw any word stored after beginValueWrite's
// fence also sees (acquire fence against release fence) the flags store before it, so the second
// read differs from the first. A copy from the lookaside slot is protected the same way by the
// fence in stageValue: seeing any word of a later staging means seeing the completed end of the
// write it was copying for, so its flags have moved.
//
// Under ThreadSanitizer the fences are modelled as ordered copies (Mem/Atomics.h).

#include <cstddef>
#include <cstdint>

#include "Mem/Atomics.h"
#include "Quarn/SlotTable.h"

namespace Quarn::ValueSeq {

inline char* flagsWord(char* slot) noexcept {
  return slot + offsetof(SlotTable::Slot, flags);
}
inline char const* flagsWord(char const* slot) noexcept {
  return slot + offsetof(SlotTable::Slot, flags);
}

// Stages a whole value where no reader takes it for a slot's yet: the lookaside value area before
// the bracket of a reachable slot opens, or the value area of a slot not yet linked. The release
// fence orders it after the end of the previous write, which a reader may still be copying the
// lookaside value for.
inline void stageValue(char* area, void const* value, std::size_t bytes) noexcept {
  Mem::Atomics::fenceRelease();
  Mem::Atomics::copyToShared(area, value, bytes);
}

// Opens the bracket: sets LOOKASIDE (release), then a release fence orders every value store
// that follows after it. Returns the flags the write began from.
inline std::uint32_t beginValueWrite(char* slot) noexcept {
  std::uint32_t const begun = Mem::Atomics::load32Relaxed(flagsWord(slot));
  Mem::Atomics::store32Release(flagsWord(slot), begun + 2);
  Mem::Atomics::fenceRelease();
  return begun;
}

// Closes the bracket opened at `begun`: clears LOOKASIDE and sets OCCUPIED in one release store,
// after every value store.
inline void endValueWrite(char* slot, std::uint32_t begun) noexcept {
  Mem::Atomics::store32Release(flagsWord(slot), (begun + 4) | SlotTable::OCCUPIED);
}

// The flags (acquire) a reader's copy starts under.
inline std::uint32_t readValueBegin(char const* slot) noexcept {
  return Mem::Atomics::load32Acquire(flagsWord(slot));
}

// After a copy begun under `begun`: an acquire fence, then flags again (relaxed). False when they
// are unchanged (the copy is consistent); true, with `begun` set to the new flags, when the copy
// must be made again.
inline bool readValueRetry(char const* slot, std::uint32_t& begun) noexcept {
  Mem::Atomics::fenceAcquire();
  std::uint32_t const now = Mem::Atomics::load32Relaxed(flagsWord(slot));
  if (now == begun) return false;
  begun = now;
  return true;
}

}  // namespace Quarn::ValueSeq
