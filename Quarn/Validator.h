#pragma once
// Full structural check of a writer's table: headers, every hash chain, the free list and the
// current notification table, and their cross-references. Never repairs, never throws to its
// caller, never loops: each slot and each notification position may be claimed once (two bit
// sets), so a cyclic chain or free list ends at the first repeated slot.
//
// Used by a restarting writer (keep the files or re-format them) and by the writer's mounter when
// a reader reports corruption.

#include <cstdint>
#include <string>
#include <vector>

#include "Jorv/Platform.h"
#include "Quarn/IterHint.h"

namespace Quarn {

class SlotWriterTable;
class BucketWriterTable;
class ConquerWriter;
template <class Key, class Wrapper>
class QuarnWriter;

class ValidatorBase {
 public:
  ValidatorBase(Jorv::DebugHandler& dh, std::string rootPath, SlotWriterTable& slots,
                BucketWriterTable& buckets, ConquerWriter& conquer);
  virtual ~ValidatorBase() = default;

  // True when valid. Any exception met on the way is logged and counts as invalid.
  bool validate(std::uint32_t fenix);
  // The checks in order; false at the first failure (its message in `error()`).
  bool doValidate(std::uint32_t fenix);
  std::string const& error() const noexcept { return error_; }

  // Every slot reached through the chains, in iteration order.
  virtual bool walkOccupiedSlots() = 0;
  bool walkFreeSlots();
  bool markOccupied(std::uint32_t slotIndex);

  // The file's size on disk against the size its header requires.
  static bool validateFile(Jorv::DebugHandler& dh, std::string const& fileName,
                           std::size_t expectedSize);

 protected:
  bool fail(std::string text);
  // A slot's live entry must lie in the written part of the current table: a writer that died
  // between writing an entry and advancing currentPos leaves a claim the next append would
  // overwrite with another slot's entry.
  bool withinQueue(std::uint32_t position) const;
  bool checkOccupiedCount(std::uint32_t count);

  Jorv::DebugHandler& dh_;
  std::string rootPath_;
  SlotWriterTable& slots_;
  BucketWriterTable& buckets_;
  ConquerWriter& conquer_;
  std::vector<bool> slotMarks_;
  std::vector<bool> positionMarks_;
  std::uint32_t marked_ = 0;
  std::string error_;
};

template <class Key, class Wrapper>
class Validator final : public ValidatorBase {
 public:
  Validator(Jorv::DebugHandler& dh, QuarnWriter<Key, Wrapper>& writer)
      : ValidatorBase(dh, writer.rootPath(), writer.slots(), writer.buckets(), writer.conquer()),
        writer_(writer) {}

  bool walkOccupiedSlots() override {
    KIV_TRACE(dh_, 5, "Validator::walkOccupiedSlots() starting");
    std::uint32_t count = 0;
    Wrapper value;
    IterHint hint;
    for (bool more = writer_.first(0, value, hint); more;
         more = writer_.next(Key(value.key), value, hint)) {
      if (!markOccupied(hint.slot)) return false;
      ++count;
    }
    KIV_TRACE(dh_, 5, "Validator::walkOccupiedSlots() marked ", count, " slots");
    return checkOccupiedCount(count);
  }

 private:
  QuarnWriter<Key, Wrapper>& writer_;
};

}  // namespace Quarn
