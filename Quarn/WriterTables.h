#pragma once
// The writer's handles on the slot file (`SlotWriterTable`) and the bucket file
// (`BucketWriterTable`): attach (create, keep or re-format), growth of the slot array, the free
// list, and range-checked access. Key-independent; the chains are kept by QuarnWriter.
//
// Link units (a slot's linkVersion/next, a bucket's linkVersion/head) are changed only through
// `publishLink`, one release store of the pair with the version increased by one, so a reader
// that loads the unit (acquire) sees the slot it names fully written, and a reader that saw the
// old unit can tell that it changed.

#include <cstdint>
#include <memory>
#include <string>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"
#include "Mem/Atomics.h"
#include "Quarn/BucketTable.h"
#include "Quarn/QuarnMem.h"
#include "Quarn/SlotTable.h"

namespace Quarn {

// (version + 1, target) in one release store. Only the writer calls this; it alone writes the
// unit, so its relaxed read of the old version is exact.
inline void publishLink(char* unit, std::uint32_t target) noexcept {
  std::uint32_t const version = Mem::Atomics::lowWord(Mem::Atomics::load64Relaxed(unit));
  Mem::Atomics::store64Release(unit, Mem::Atomics::pack(version + 1, target));
}
inline std::uint32_t linkTarget(char const* unit) noexcept {
  return Mem::Atomics::highWord(Mem::Atomics::load64Acquire(unit));
}

// Reads one of the writer's table files front to back in chunks, for checks that read every byte
// once. A shared file is copied through the mapping's own descriptor into a reused buffer: the
// first touch of each page of a mapping that was just made (a restarted writer's) costs more than
// copying it, even with the pages mapped in advance (MADV_POPULATE_READ), and under some
// hypervisors several times more (each page's first touch traps). Contents are those of the
// mapping: both views share the pages, and only this writer changes them. A local table, or a
// read that comes back short (a file cut under the writer), is read through the mapping, its
// chunk's pages mapped in one call first; the truncation handler answers a fault past the end.
class TableFileReader {
 public:
  explicit TableFileReader(QuarnMem const& mem)
      : mem_(mem), buffer_(mem.local() ? nullptr : new char[chunkSize]) {}

  // The bytes [offset, offset + length) of the mapped file, valid until the next call; `length`
  // at most `chunkSize`, and the range must lie within the mapping.
  char const* read(std::size_t offset, std::size_t length);
  static constexpr std::size_t chunkSize = 256 * 1024;

 private:
  QuarnMem const& mem_;
  std::unique_ptr<char[]> buffer_;
};

// Writer-side statistics; kept in the writer process only.
struct SlotCounters {
  std::uint64_t allocs = 0;
  std::uint64_t removes = 0;
  std::uint64_t writes = 0;
  std::uint64_t grows = 0;
  std::uint64_t growFailures = 0;
  std::string str() const;
};

// Texts of one file's attach, so that the three writer tables share one attach routine.
struct AttachTexts {
  char const* prefix;          // "SlotWriter::attach() "
  char const* mapFailure;      // text before the name
  char const* mapFailureSize;  // text before the size
  char const* resizeFailure;
};

// Maps `mem` for a writer and decides between keeping and formatting it: a missing file is
// created at `initialSize` and formatted; an existing one is kept when its header's fenix (offset
// 12 of every table file) equals `fenix` and `force` is false, else re-formatted at `initialSize`
// in a new file that replaces it (QuarnMem::stageReplacement; a local table's in place).
// Returns true when the contents were kept. Throws Jorv::MemoryResourceException naming the
// file, the size asked and the cause ("no space left on device" when the file system is full).
template <class Format>
bool attachTableFile(Jorv::DebugHandler& dh, QuarnMem& mem, std::size_t initialSize,
                     std::uint32_t fenix, bool force, AttachTexts const& texts, Format&& format);
bool attachTableFileImpl(Jorv::DebugHandler& dh, QuarnMem& mem, std::size_t initialSize,
                         std::uint32_t fenix, bool force, AttachTexts const& texts);
// The failed resize of `mem` to `size` bytes, with the cause that errno holds.
Jorv::MemoryResourceException resizeFailure(AttachTexts const& texts, QuarnMem const& mem,
                                            std::size_t size);

class SlotWriterTable {
 public:
  SlotWriterTable(Jorv::DebugHandler& dh, std::string const& rootPath, bool local,
                  std::string valueTypeName, std::string className, std::uint32_t valueSize,
                  std::uint32_t tableSize);

  // Returns true when existing contents were kept. Formats and fills the free list otherwise.
  bool attach(std::uint32_t fenix, bool force);
  // Maps the existing file read-only, as it is (see QuarnWriter::inspect). False when it is
  // missing or cannot be mapped.
  bool inspect();
  // Doubles up to tableSize, then adds 10%, in whole pages; links the new slots into the (empty)
  // free list. False when the file cannot be resized or its space cannot be had (nothing changed
  // then; `growError` holds the cause).
  bool grow();
  // The errno of the last failed growth (0: none, or the slot count cannot grow further).
  int growError() const noexcept { return growError_; }
  // Takes the first free slot (growing when none is left); noIndex when the table cannot grow.
  std::uint32_t alloc();
  // Pushes a slot that no link reaches any more onto the free list (last in, first out).
  void pushFree(std::uint32_t i) noexcept;
  // Gives back a slot that `alloc` took and no link reaches (a change that failed before
  // publishing it): on the free list again, not counted as occupied.
  void release(std::uint32_t i) noexcept;
  // Links slots [start, end) into the free list in ascending order; the list must be empty.
  void addFreeSlots(std::uint32_t start, std::uint32_t end);
  void cleanup();

  // Range-checked slot address; throws CorruptionDetectedException beyond the highest index.
  char* slot(std::uint32_t i) const {
    if (i >= numSlots_) [[unlikely]] outOfRange(i);
    return slotUnchecked(i);
  }
  char* slotUnchecked(std::uint32_t i) const noexcept {
    return SlotTable::slot(mem_.base(), slotSize_, i);
  }
  char* lookasideValue() const noexcept {
    return SlotTable::lookaside(mem_.base()) + SlotTable::valueOffset;
  }
  static char* value(char* slot) noexcept { return slot + SlotTable::valueOffset; }
  static std::uint32_t flags(char const* slot) noexcept {
    return Mem::Atomics::load32Relaxed(slot + offsetof(SlotTable::Slot, flags));
  }
  static void flagsIs(char* slot, std::uint32_t f) noexcept {
    Mem::Atomics::store32Release(slot + offsetof(SlotTable::Slot, flags), f);
  }
  static std::uint32_t next(char const* slot) noexcept { return linkTarget(slot); }
  std::uint32_t conquerSlot(std::uint32_t i) const {
    return Mem::Atomics::load32Relaxed(slot(i) + offsetof(SlotTable::Slot, conquerSlot));
  }
  void conquerSlotIs(std::uint32_t i, std::uint32_t pos) const {
    Mem::Atomics::store32Release(slot(i) + offsetof(SlotTable::Slot, conquerSlot), pos);
  }

  SlotTable::Header* header() const noexcept { return SlotTable::header(mem_.base()); }
  std::uint32_t numSlots() const noexcept { return numSlots_; }
  std::uint32_t maxIndex() const noexcept { return numSlots_ - 1; }
  std::uint32_t slotSize() const noexcept { return slotSize_; }
  std::uint32_t valueSize() const noexcept { return valueSize_; }
  std::uint32_t tableSize() const noexcept { return tableSize_; }
  std::uint32_t occupiedSlots() const noexcept { return header()->load(header()->occupiedSlots); }
  std::uint32_t freeSlots() const noexcept { return header()->load(header()->freeSlots); }
  QuarnMem& mem() noexcept { return mem_; }
  QuarnMem const& mem() const noexcept { return mem_; }
  SlotCounters& counters() noexcept { return counters_; }
  SlotCounters const& counters() const noexcept { return counters_; }

 private:
  // The mapped header describes this writer's record type and configured size.
  bool sameRecordLayout() const;
  [[noreturn]] void outOfRange(std::uint32_t i) const;
  // The header's slot count, trusted only as far as the mapping reaches (validation reports
  // the rest).
  std::uint32_t mappedNumSlots() const;

  Jorv::DebugHandler& dh_;
  QuarnMem mem_;
  std::string valueTypeName_;
  std::string className_;
  std::uint32_t valueSize_;
  std::uint32_t slotSize_;
  std::uint32_t tableSize_;
  std::uint32_t numSlots_ = 0;
  int growError_ = 0;
  SlotCounters counters_;
};

class BucketWriterTable {
 public:
  BucketWriterTable(Jorv::DebugHandler& dh, std::string const& rootPath, bool local,
                    std::uint32_t tableSize);

  bool attach(std::uint32_t fenix, bool force);
  // Maps the existing file read-only, as it is (see QuarnWriter::inspect).
  bool inspect() { return mem_.attachReadOnly(); }
  void cleanup();

  // Range-checked address of a bucket's link unit; throws CorruptionDetectedException.
  char* bucket(std::uint32_t b) const {
    if (b >= numBuckets_ || BucketTable::fileSize(b + 1) > mem_.mappedSize()) [[unlikely]] {
      outOfRange(b);
    }
    return BucketTable::bucket(mem_.base(), b);
  }
  BucketTable::Header* header() const noexcept { return BucketTable::header(mem_.base()); }
  std::uint32_t numBuckets() const noexcept { return numBuckets_; }
  QuarnMem& mem() noexcept { return mem_; }
  QuarnMem const& mem() const noexcept { return mem_; }

 private:
  [[noreturn]] void outOfRange(std::uint32_t b) const;

  Jorv::DebugHandler& dh_;
  QuarnMem mem_;
  std::uint32_t numBuckets_;
};

template <class Format>
bool attachTableFile(Jorv::DebugHandler& dh, QuarnMem& mem, std::size_t initialSize,
                     std::uint32_t fenix, bool force, AttachTexts const& texts, Format&& format) {
  if (attachTableFileImpl(dh, mem, initialSize, fenix, force, texts)) return true;
  format();
  if (!mem.commitReplacement()) throw resizeFailure(texts, mem, initialSize);
  return false;
}

}  // namespace Quarn
