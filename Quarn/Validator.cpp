#include "Quarn/Validator.h"

#include <exception>
#include <sstream>

#include "Quarn/ConquerWriter.h"
#include "Quarn/Util.h"
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

bool ValidatorBase::doValidate(std::uint32_t fenix) {
  error_.clear();
  std::string text;
  if (!buckets_.header()->validate(buckets_.mem().mappedSize(), fenix, text)) return fail(text);
  if (!slots_.header()->validate(slots_.mem().mappedSize(), fenix, text)) return fail(text);
  if (!conquer_.validate(fenix, text)) return fail(text);

  std::uint32_t const numSlots = slots_.numSlots();
  slotMarks_.assign(numSlots, false);
  positionMarks_.assign(conquer_.capacity(conquer_.currentTable()), false);
  marked_ = 0;
  if (!walkOccupiedSlots()) return false;
  if (!walkFreeSlots()) return false;
  if (marked_ != numSlots) {
    std::ostringstream os;
    os << "Validator::doValidate() bad slotCount:" << marked_
       << " occupiedSlots:" << slots_.occupiedSlots() << " freeSlots:" << slots_.freeSlots();
    return fail(os.str());
  }
  std::uint32_t const end = conquer_.currentPos(conquer_.currentTable());
  for (std::uint32_t p = 0; p < end; ++p) {
    std::uint32_t const s = conquer_.entrySlot(p);
    std::ostringstream os;
    if (s == noIndex) {
      if (positionMarks_[p]) {
        os << "Validator::doValidate() active tombstone pos:" << p;
        return fail(os.str());
      }
      continue;
    }
    char const* const slot = slots_.slot(s);
    if (!positionMarks_[p] && (SlotWriterTable::flags(slot) & SlotTable::OCCUPIED)) {
      os << "Validator::doValidate() occupied slot:" << s << " on deleted notification:" << p;
      return fail(os.str());
    }
    if (std::uint32_t const c = slots_.conquerSlot(s); c != p) {
      os << "Validator::doValidate() conquer pos:" << p << " has slot:" << s
         << " with wrong conquerSlot:" << c;
      return fail(os.str());
    }
  }
  return true;
}

bool ValidatorBase::checkOccupiedCount(std::uint32_t count) {
  if (count == slots_.occupiedSlots()) return true;
  std::ostringstream os;
  os << "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:" << slots_.occupiedSlots()
     << " count:" << count;
  return fail(os.str());
}

bool ValidatorBase::markOccupied(std::uint32_t s) {
  KIV_TRACE(dh_, 8, "Validator::markOccupied() slotIndex: ", s);
  std::ostringstream os;
  if (s < slotMarks_.size() && slotMarks_[s]) {
    os << "Validator::markOccupied() duplicate slot: " << s;
    return fail(os.str());
  }
  char const* const slot = slots_.slot(s);  // throws beyond the highest index
  slotMarks_[s] = true;
  ++marked_;
  std::uint32_t const flags = SlotWriterTable::flags(slot);
  if (!(flags & SlotTable::OCCUPIED)) {
    os << "Validator::markOccupied() missing OCCUPIED bit: 0x" << std::hex << flags;
    return fail(os.str());
  }
  if (flags & SlotTable::LOOKASIDE) {
    os << "Validator::markOccupied() stuck LOOKASIDE bit: 0x" << std::hex << flags;
    return fail(os.str());
  }
  std::uint32_t const c = slots_.conquerSlot(s);
  if (c == noIndex) return true;
  if (c >= positionMarks_.size()) {
    os << "Validator::markOccupied() slot:" << s << " bad conquer index:" << c
       << " size:" << positionMarks_.size();
    return fail(os.str());
  }
  if (!withinQueue(c)) {
    os << "Validator::markOccupied() slot:" << s << " conquer index:" << c
       << " beyond currentPos:" << conquer_.currentPos(conquer_.currentTable());
    return fail(os.str());
  }
  // A tombstone at c is left for the notification walk, which names it precisely.
  if (std::uint32_t const named = conquer_.entrySlot(c); named != s && named != noIndex) {
    os << "Validator::markOccupied() slot:" << s << " bad notification:" << c << " slot:" << named;
    return fail(os.str());
  }
  if (positionMarks_[c]) {
    os << "Validator::markOccupied() slot:" << s << " duplicate conquer position:" << c;
    return fail(os.str());
  }
  positionMarks_[c] = true;
  return true;
}

bool ValidatorBase::withinQueue(std::uint32_t position) const {
  return position < conquer_.currentPos(conquer_.currentTable());
}

bool ValidatorBase::walkFreeSlots() {
  KIV_TRACE(dh_, 5, "Validator::walkFreeSlots() starting");
  std::uint32_t const numSlots = slots_.numSlots();
  std::uint32_t count = 0;
  for (std::uint32_t i = slots_.freeSlots(); i != noIndex;) {
    KIV_TRACE(dh_, 8, "Validator::walkFreeSlots() walking slotIndex: ", i);
    std::ostringstream os;
    if (i > numSlots) {
      os << "Validator::walkFreeSlots() corrupted free slot detected with out of bound index: "
         << i;
      return fail(os.str());
    }
    char const* const slot = slots_.slot(i);  // throws for i == numSlots
    if (slotMarks_[i]) {
      os << "Validator::walkFreeSlots() duplicate freeSlot detected: " << i;
      return fail(os.str());
    }
    slotMarks_[i] = true;
    ++marked_;
    ++count;
    // A removed slot may still own the live entry of its removal.
    if (std::uint32_t const c = slots_.conquerSlot(i); c != noIndex) {
      if (c >= positionMarks_.size()) {
        os << "Validator::walkFreeSlots() slot index:" << i
           << " has out of range conquer slot: " << c;
        return fail(os.str());
      }
      if (!withinQueue(c)) {
        os << "Validator::walkFreeSlots() slot index:" << i << " conquer index:" << c
           << " beyond currentPos:" << conquer_.currentPos(conquer_.currentTable());
        return fail(os.str());
      }
      if (std::uint32_t const named = conquer_.entrySlot(c); named != i && named != noIndex) {
        os << "Validator::walkFreeSlots() slot index:" << i << " has slot:" << named
           << " with wrong conquer slot:" << c;
        return fail(os.str());
      }
      positionMarks_[c] = true;
    }
    if (SlotWriterTable::flags(slot) & SlotTable::OCCUPIED) {
      os << "Validator::walkFreeSlots() corrupted free slot not marked as empty: " << i;
      return fail(os.str());
    }
    i = SlotWriterTable::next(slot);
  }
  KIV_TRACE(dh_, 5, "Validator::walkFreeSlots() marked ", count);
  return true;
}

bool ValidatorBase::validateFile(Jorv::DebugHandler& dh, std::string const& fileName,
                                 std::size_t expectedSize) {
  std::size_t const onDisk = Util::memSize(fileName);
  if (onDisk == expectedSize) return true;
  KIV_TRACE(dh, 0, "ValidatorBase::validateFile() wrong size ", fileName, " size:", onDisk,
            " expected:", expectedSize);
  return false;
}

}  // namespace Quarn
