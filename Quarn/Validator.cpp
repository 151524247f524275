#include "Quarn/Validator.h"

#include <exception>
#include <sstream>

#include "Mem/Shared.h"
#include "Quarn/ConquerWriter.h"
#include "Quarn/Files.h"
#include "Quarn/WriterTables.h"

namespace Quarn {

ValidatorBase::ValidatorBase(Jorv::DebugHandler& dh, std::string rootPath, SlotWriterTable& slots,
                             BucketWriterTable& buckets, ConquerWriter& conquer)
    : dh_(dh),
      rootPath_(std::move(rootPath)),
      slots_(slots),
      buckets_(buckets),
      conquer_(conquer) {}

bool ValidatorBase::fail(std::string text) {
  error_ = std::move(text);
  return false;
}

bool ValidatorBase::validate(std::uint32_t fenix) {
  bool valid = false;
  try {
    valid = doValidate(fenix);
  } catch (std::exception const& e) {
    KIV_TRACE(dh_, 1, "Validator::validate caught: ", e.what());
    error_ = e.what();
    valid = false;
  }
  if (!valid) {
    KIV_TRACE(dh_, 1, "Validator::validate() Quarn ", rootPath_, " validation failed: ", error_);
  }
  return valid;
}

bool ValidatorBase::checkHeaders(std::uint32_t fenix, bool grownAllowed) {
  error_.clear();
  std::string text;
  BucketTable::Header const* const bh = buckets_.header();
  if (!bh->validate(buckets_.mem().mappedSize(), fenix, text)) return fail(text);
  if (bh->load(bh->numBuckets) != buckets_.numBuckets()) {
    return failWith("Validator::doValidate() numBuckets:", bh->load(bh->numBuckets),
                    " writer's:", buckets_.numBuckets());
  }
  SlotTable::Header const* const sh = slots_.header();
  if (!sh->validate(slots_.mem().mappedSize(), fenix, text)) return fail(text);
  if (sh->load(sh->numSlots) != slots_.numSlots() || sh->load(sh->slotSize) != slots_.slotSize()) {
    return failWith("Validator::doValidate() numSlots:", sh->load(sh->numSlots),
                    " slotSize:", sh->load(sh->slotSize), " writer's:", slots_.numSlots(), "/",
                    slots_.slotSize());
  }
  if (!conquer_.validateHeaders(fenix, text)) return fail(text);
  if (!validateFiles(dh_, slots_, buckets_, conquer_, grownAllowed)) {
    return fail("Validator::doValidate() " + rootPath_ +
                " files on disk differ from their headers");
  }
  return true;
}

bool ValidatorBase::doValidate(std::uint32_t fenix) {
  if (!checkHeaders(fenix)) return false;
  std::string text;
  if (!conquer_.validate(fenix, text)) return fail(text);

  std::uint32_t const numSlots = slots_.numSlots();
  slotMarks_.assign((std::size_t(numSlots) + 63) / 64, 0);
  claims_.assign(conquer_.currentPos(conquer_.currentTable()), noIndex);
  marked_ = 0;
  if (!walkOccupiedSlots()) return false;
  if (!walkFreeSlots()) return false;
  if (marked_ != numSlots) {
    return failWith("Validator::doValidate() bad slotCount:", marked_,
                    " occupiedSlots:", slots_.occupiedSlots(), " freeSlots:", slots_.freeSlots());
  }
  return checkNotifications();
}

void ValidatorBase::chainBreak(std::uint32_t i, std::uint32_t bucket, bool head,
                               bool unoccupied) const {
  // The texts of the writer's own chain checks (head: first, further slots: next/lookup).
  std::ostringstream os;
  if (unoccupied) {
    os << "QuarnWriter::" << (head ? "first" : "lookup") << "() slot: " << i
       << " not marked as occupied";
  } else {
    os << "QuarnWriter::" << (head ? "first" : "next") << "() corrupt key detected, slot: " << i
       << " bucket:" << bucket;
  }
  throw CorruptionDetectedException(os.str());
}

bool ValidatorBase::checkNotifications() {
  // Every live entry is claimed by the slot it names, every claimed entry is live.
  std::uint32_t failed = noIndex;
  conquer_.forEachEntry(static_cast<std::uint32_t>(claims_.size()),
                        [&](std::uint32_t p, std::uint64_t, std::uint32_t s) {
                          if (s == claims_[p]) return true;
                          failed = p;
                          return false;
                        });
  if (failed == noIndex) return true;
  std::uint32_t const p = failed;
  std::uint32_t const s = conquer_.entrySlot(p);
  std::uint32_t const claimant = claims_[p];
  if (s == noIndex) return failWith("Validator::doValidate() active tombstone pos:", p);
  if (claimant != noIndex) {
    if (occupied(claimant)) {
      return failWith("Validator::markOccupied() slot:", claimant, " bad notification:", p,
                      " slot:", s);
    }
    return failWith("Validator::walkFreeSlots() slot index:", claimant, " has slot:", s,
                    " with wrong conquer slot:", p);
  }
  if (s >= slots_.numSlots()) outOfRange(s);
  if (occupied(s)) {
    return failWith("Validator::doValidate() occupied slot:", s, " on deleted notification:", p);
  }
  return failWith("Validator::doValidate() conquer pos:", p, " has slot:", s,
                  " with wrong conquerSlot:", slots_.conquerSlot(s));
}

bool ValidatorBase::checkOccupiedCount(std::uint32_t count) {
  if (count == slots_.occupiedSlots()) return true;
  return failWith("Validator::walkOccupiedSlots() mismatch header->occupiedSlots:",
                  slots_.occupiedSlots(), " count:", count);
}

void ValidatorBase::outOfRange(std::uint32_t i) const {
  (void)slots_.slot(i);  // throws the tables' own range message
  throw CorruptionDetectedException("Validator::outOfRange() slot " + std::to_string(i));
}

bool ValidatorBase::markOccupied(std::uint32_t s) {
  KIV_TRACE(dh_, 8, "Validator::markOccupied() slotIndex: ", s);
  if (s >= slots_.numSlots()) outOfRange(s);
  return mark(s);
}

bool ValidatorBase::lookasideSet(std::uint32_t s, std::uint32_t flags, bool occupied) {
  std::ostringstream os;
  if (occupied) {
    os << "Validator::markOccupied() stuck LOOKASIDE bit: 0x" << std::hex << flags;
  } else {
    os << "Validator::walkFreeSlots() free slot:" << s << " has LOOKASIDE bit: 0x" << std::hex
       << flags;
  }
  return fail(os.str());
}

bool ValidatorBase::claim(std::uint32_t s, std::uint32_t c, bool free) {
  std::uint32_t const capacity = conquer_.capacity(conquer_.currentTable());
  char const* const who =
      free ? "Validator::walkFreeSlots() slot index:" : "Validator::markOccupied() slot:";
  if (c >= capacity) {
    if (free) return failWith(who, s, " has out of range conquer slot: ", c);
    return failWith(who, s, " bad conquer index:", c, " size:", capacity);
  }
  if (c >= claims_.size()) {
    return failWith(who, s, " conquer index:", c, " beyond currentPos:", claims_.size());
  }
  if (claims_[c] != noIndex) return failWith(who, s, " duplicate conquer position:", c);
  claims_[c] = s;
  return true;
}

bool ValidatorBase::walkFreeSlots() {
  KIV_TRACE(dh_, 5, "Validator::walkFreeSlots() starting");
  std::uint32_t const numSlots = slots_.numSlots();
  std::uint32_t count = 0;
  for (std::uint32_t i = slots_.freeSlots(); i != noIndex;) {
    KIV_TRACE(dh_, 8, "Validator::walkFreeSlots() walking slotIndex: ", i);
    if (i > numSlots) {
      return failWith(
          "Validator::walkFreeSlots() corrupted free slot detected with out of bound index: ", i);
    }
    if (i == numSlots) outOfRange(i);
    std::uint64_t& word = slotMarks_[i / 64];
    std::uint64_t const bit = std::uint64_t(1) << (i % 64);
    if (word & bit) return failWith("Validator::walkFreeSlots() duplicate freeSlot detected: ", i);
    word |= bit;
    ++marked_;
    ++count;
    if (occupied(i)) {
      return failWith("Validator::walkFreeSlots() corrupted free slot not marked as empty: ", i);
    }
    i = links_[i].next;
  }
  KIV_TRACE(dh_, 5, "Validator::walkFreeSlots() marked ", count);
  return true;
}

bool ValidatorBase::validateFile(Jorv::DebugHandler& dh, std::string const& fileName,
                                 std::size_t expectedSize, bool grownAllowed) {
  std::size_t const onDisk = Util::memSize(fileName);
  if (onDisk == expectedSize || (grownAllowed && onDisk > expectedSize)) return true;
  KIV_TRACE(dh, 0, "ValidatorBase::validateFile() wrong size ", fileName, " size:", onDisk,
            " expected:", expectedSize);
  return false;
}

}  // namespace Quarn

namespace Quarn {

bool ValidatorBase::validateFiles(Jorv::DebugHandler& dh, SlotWriterTable const& slots,
                                  BucketWriterTable const& buckets, ConquerWriter const& conquer,
                                  bool grownAllowed) {
  if (slots.mem().local()) return true;
  return validateFile(dh, slots.mem().name(),
                      SlotTable::fileSize(slots.slotSize(), slots.numSlots()), grownAllowed) &&
         validateFile(dh, buckets.mem().name(), BucketTable::fileSize(buckets.numBuckets())) &&
         conquer.validateFile(grownAllowed);
}

}  // namespace Quarn
