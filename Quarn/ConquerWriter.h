#pragma once
// The notification queue writer: tells readers, in order, which slots changed.
//
// Every change of slot s appends (sequence, s) to the current table; s's previous live entry, if
// any, is tombstoned first, so a slot has at most one live entry and its conquerSlot names it.
// When the current table is full, the entries that every reader has consumed are pruned (minSeq
// raised to the readers' lowest acknowledged sequence, or to the writer's own sequence when no
// reader is connected), and the live rest is copied, in order, into the other table, which then
// becomes current. Sequences increase strictly along a table.
//
// Order of one notification (readers rely on it): tombstone the old entry, write the new entry,
// store currentPos (release), then wake readers. A reader that loads currentPos (acquire) sees
// every entry below it; a slot's newer entry always lies later in the same table.
// A compaction fills the other table and its currentPos before it stores currentTable (release)
// in the "conquer.1" header.
//
// Nothing read back from a header is trusted: every use of a table's capacity or currentPos as an
// index is preceded by a check against that table's mapping (`extent`), and a table that fails it
// raises CorruptionDetectedException instead of being written.

#include <algorithm>
#include <cstdint>
#include <string>

#include "Jorv/Platform.h"
#include "Quarn/ConquerTable.h"
#include "Quarn/QuarnMem.h"
#include "Quarn/WriterKick.h"
#include "Quarn/WriterTables.h"

namespace Quarn {

struct ConquerCounters {
  std::uint64_t notifications = 0;
  std::uint64_t tombstones = 0;
  std::uint64_t prunes = 0;
  std::uint64_t compactions = 0;
  std::uint64_t lastSequence = 0;
};

class ConquerWriter {
 public:
  ConquerWriter(Jorv::DebugHandler& dh, std::string const& rootPath, bool local,
                SlotWriterTable& slots, WriterKick& kick);

  // Maps table `tableId` (0 or 1), keeping it when its fenix matches and `force` is false.
  // Returns true when kept.
  bool attachConquer(std::uint32_t tableId, std::uint32_t fenix, bool force);
  // Maps table `tableId` read-only, as it is (see QuarnWriter::inspect). False when it is
  // missing or cannot be mapped.
  bool inspect(std::uint32_t tableId, std::uint32_t fenix) {
    fenix_ = fenix;
    return mem_[tableId].attachReadOnly();
  }
  // After both tables were attached: take over the current table, sequence and live count that
  // the files hold (fresh values for fresh files).
  void restore();
  // Fresh tables formatted under a running writer: their sequences go on from `sequence` (kept
  // as minSeq), so what readers acknowledged of the old incarnation stays below every new entry
  // and cannot let a prune drop entries they have not read.
  void resumeSequence(std::uint64_t sequence);

  // Before a change of slot `slotIndex`: writes the entry that will announce it at currentPos,
  // unpublished (compacting first when the table is full). A writer killed after the change
  // but before `notify` leaves it there, the next sequence naming the slot, and its successor
  // announces that slot (`announcePrepared`): readers that stay attached across the restart
  // would otherwise never hear of the change.
  void prepare(std::uint32_t slotIndex);
  // Room for one more entry in the current table, compacting first when it is full. Called
  // before a change takes a new slot, so that a compaction that fails (TableFullException) has
  // touched nothing of the slot table either.
  void makeRoom();
  // Records a change of slot `slotIndex`. Throws CorruptionDetectedException when the slot's
  // conquerSlot contradicts the table.
  void notify(std::uint32_t slotIndex);
  // On files kept from a writer that ended: announces the slot of an entry it prepared and did
  // not publish. True when there was one.
  bool announcePrepared();
  // Copies the live entries the readers still need into the other table and makes it current.
  // Throws TableFullException, with nothing changed, when the other table cannot grow to hold
  // them.
  void compact();
  // The minSeq the readers allow now: the lowest sequence they acknowledged (the current
  // sequence with no reader), never below minSeq; minSeq itself while waiting for readers.
  std::uint64_t pruneTarget() const;
  // Raises minSeq to `target` (release) when it is above it, counting a prune.
  void prune(std::uint64_t target);
  // Makes table `tableId` hold at least twice `live` entries (by default the live ones), in
  // whole pages. Throws TableFullException when the file cannot grow (no space left on the file
  // system, say); the table is unchanged then.
  void grow(std::uint32_t tableId) { grow(tableId, liveCount_); }
  void grow(std::uint32_t tableId, std::uint32_t live);

  void updateNumReaders();
  std::uint32_t numReaders() const;
  bool waitingForReaders() const noexcept { return waitingForReaders_; }
  void waitingForReadersIs(bool waiting) noexcept { waitingForReaders_ = waiting; }

  // Both tables' headers against their mappings (table id, capacity, currentPos), the current
  // table id, and the current table's entry order against minSeq (false + message).
  bool validate(std::uint32_t fenix, std::string& error) const;
  // The header part of `validate`: both headers and the current table id.
  bool validateHeaders(std::uint32_t fenix, std::string& error) const;
  // Both files: header against the mapping and size on disk against the header (or above it,
  // with `grownAllowed`).
  bool validateFile(bool grownAllowed = false) const;
  void cleanup();

  std::uint32_t currentTable() const noexcept { return current_; }
  // Raw header words; index with them only after `validate` or through `extent`.
  char* base(std::uint32_t tableId) const noexcept { return mem_[tableId].base(); }
  ConquerTable::Header* header(std::uint32_t tableId) const noexcept {
    return ConquerTable::header(base(tableId));
  }
  std::uint32_t capacity(std::uint32_t tableId) const noexcept {
    return header(tableId)->load(header(tableId)->capacity);
  }
  std::uint32_t currentPos(std::uint32_t tableId) const noexcept {
    return header(tableId)->load(header(tableId)->currentPos);
  }
  // Slot index of entry `pos` of the current table (noIndex for a tombstone).
  std::uint32_t entrySlot(std::uint32_t pos) const noexcept {
    return ConquerTable::slotIndex(ConquerTable::entry(base(current_), pos));
  }
  std::uint64_t entrySequence(std::uint32_t pos) const noexcept {
    return ConquerTable::sequence(ConquerTable::entry(base(current_), pos));
  }
  // Calls `f(position, sequence, slot)` for the current table's entries [0, end) in order, until
  // it returns false; `end` must have been checked against the mapping. Reads the file in chunks
  // (TableFileReader). Returns whether every call returned true.
  template <class F>
  bool forEachEntry(std::uint32_t end, F&& f) const;
  std::uint64_t minSeq() const noexcept { return Mem::Atomics::load64Acquire(&header(0)->minSeq); }
  std::uint64_t sequence() const noexcept { return sequence_; }
  std::uint32_t liveCount() const noexcept { return liveCount_; }
  ConquerCounters const& counters() const noexcept { return counters_; }
  QuarnMem const& mem(std::uint32_t tableId) const noexcept { return mem_[tableId]; }
  // The mode of the files created from now on (QuarnMem::fileModeIs).
  void fileModeIs(unsigned mode) {
    for (QuarnMem& mem : mem_) mem.fileModeIs(mode);
  }

 private:
  // A table's capacity and currentPos, checked against its mapping; throws
  // CorruptionDetectedException naming `op` when they do not fit.
  struct Extent {
    std::uint32_t capacity;
    std::uint32_t pos;
  };
  Extent extent(std::uint32_t tableId, char const* op) const {
    std::size_t const mapped = mem_[tableId].mappedSize();
    if (mapped >= ConquerTable::headerSize) [[likely]] {
      Extent const e{capacity(tableId), currentPos(tableId)};
      if (ConquerTable::fileSize(e.capacity) <= mapped && e.pos <= e.capacity) [[likely]] return e;
    }
    badExtent(tableId, op);
  }
  [[noreturn]] void badExtent(std::uint32_t tableId, char const* op) const;
  bool validateHeader(std::uint32_t tableId, std::uint32_t fenix, std::string& error) const;
  std::uint32_t prunePosition(std::uint64_t minSeq, std::uint32_t end) const;
  [[noreturn]] void corruption(std::string const& text) const;

  Jorv::DebugHandler& dh_;
  SlotWriterTable& slots_;
  WriterKick& kick_;
  QuarnMem mem_[2];
  std::uint32_t fenix_ = 0;
  std::uint32_t current_ = 0;
  std::uint64_t sequence_ = 0;
  std::uint32_t liveCount_ = 0;
  bool waitingForReaders_ = false;
  bool growFailing_ = false;  // the last growth failed
  ConquerCounters counters_;
};

template <class F>
bool ConquerWriter::forEachEntry(std::uint32_t end, F&& f) const {
  TableFileReader file(mem_[current_]);
  constexpr std::uint32_t batch = TableFileReader::chunkSize / ConquerTable::entrySize;
  for (std::uint32_t first = 0; first < end; first += batch) {
    std::uint32_t const count = std::min(batch, end - first);
    char const* const chunk = file.read(ConquerTable::entriesOffset + ConquerTable::entrySize * first,
                                        std::size_t(ConquerTable::entrySize) * count);
    for (std::uint32_t j = 0; j < count; ++j) {
      char const* const e = chunk + ConquerTable::entrySize * j;
      if (!f(first + j, ConquerTable::sequence(e), ConquerTable::slotIndex(e))) return false;
    }
  }
  return true;
}

}  // namespace Quarn
