#include "Quarn/ConquerWriter.h"

#include <algorithm>
#include <sstream>

#include "Jorv/Exception.h"
#include "Mem/Shared.h"
#include "Quarn/Exceptions.h"
#include "Quarn/Validator.h"
#include "Quarn/WriterTables.h"

namespace Quarn {
namespace {

char const* tableWord(std::uint32_t tableId) {
  return tableId == 0 ? "primary" : "secondary";
}

}  // namespace

ConquerWriter::ConquerWriter(Jorv::DebugHandler& dh, std::string const& rootPath, bool local,
                             SlotWriterTable& slots, WriterKick& kick)
    : dh_(dh),
      slots_(slots),
      kick_(kick),
      mem_{QuarnMem(dh, rootPath, "conquer.1", local), QuarnMem(dh, rootPath, "conquer.2", local)} {
}

void ConquerWriter::corruption(std::string const& text) const {
  KIV_TRACE(dh_, 0, text);
  throw CorruptionDetectedException(text);
}

bool ConquerWriter::attachConquer(std::uint32_t tableId, std::uint32_t fenix, bool force) {
  fenix_ = fenix;
  static constexpr AttachTexts texts{"ConquerWriter::attachConquer() ", "cannot attach to shmem ",
                                     " size:", "failed to resize "};
  std::uint32_t const capacity = ConquerTable::initialCapacity();
  if (capacity == 0) {
    throw Jorv::MemoryResourceException("ConquerWriter::attachConquer() page too small");
  }
  return attachTableFile(
      dh_, mem_[tableId], ConquerTable::fileSize(capacity), fenix, force, texts,
      [&] { ConquerTable::Header::format(mem_[tableId].base(), tableId, capacity, fenix); });
}

void ConquerWriter::restore() {
  current_ = 0;
  sequence_ = 0;
  liveCount_ = 0;
  if (mem_[0].mappedSize() >= ConquerTable::headerSize) {
    std::uint32_t const cur = header(0)->load(header(0)->currentTable);
    current_ = cur < 2 ? cur : 0;
    sequence_ = minSeq();
  }
  // Only the current table counts: the other one holds copies or pruned entries (sequences at
  // most the current table's last or minSeq), and is not trusted before validation.
  std::size_t const mapped = mem_[current_].mappedSize();
  if (mapped >= ConquerTable::headerSize) {
    auto const fits = static_cast<std::uint32_t>(
        std::min<std::size_t>((mapped - ConquerTable::headerSize) / ConquerTable::entrySize,
                              noIndex));
    std::uint32_t const end = std::min({currentPos(current_), capacity(current_), fits});
    if (end > 0) sequence_ = std::max(sequence_, entrySequence(end - 1));
    forEachEntry(end, [&](std::uint32_t, std::uint64_t, std::uint32_t s) {
      liveCount_ += s != noIndex;
      return true;
    });
  }
  counters_.lastSequence = sequence_;
}

void ConquerWriter::resumeSequence(std::uint64_t sequence) {
  Mem::Atomics::store64Release(&header(0)->minSeq, sequence);
  sequence_ = sequence;
  counters_.lastSequence = sequence;
}

void ConquerWriter::badExtent(std::uint32_t t, char const* op) const {
  std::size_t const mapped = mem_[t].mappedSize();
  if (mapped >= ConquerTable::headerSize) {
    Extent const e{capacity(t), currentPos(t)};
    std::ostringstream os;
    os << "ConquerWriter::" << op << "() " << mem_[t].name() << " capacity:" << e.capacity
       << " currentPos:" << e.pos << " do not fit its mapping of " << mapped << " bytes";
    corruption(os.str());
  }
  std::ostringstream os;
  os << "ConquerWriter::" << op << "() " << mem_[t].name() << " mapping of " << mapped
     << " bytes holds no header";
  corruption(os.str());
}

void ConquerWriter::prepare(std::uint32_t s) {
  Extent e = extent(current_, "prepare");
  if (e.pos >= e.capacity) {
    compact();
    e = extent(current_, "prepare");
  }
  if (e.pos >= e.capacity) return;  // notify reports it
  ConquerTable::setEntry(ConquerTable::entry(base(current_), e.pos), sequence_ + 1, s);
  // The slot's live entry lies anywhere in the table, a cache and TLB miss that `notify` waits
  // for when it checks and tombstones it: asked for now, it arrives while the change is made.
  // A hint only: the position is checked against currentPos (within the mapping) first.
  std::uint32_t const live = slots_.conquerSlot(s);
  if (live < e.pos) __builtin_prefetch(ConquerTable::entry(base(current_), live), 1);
}

void ConquerWriter::makeRoom() {
  Extent const e = extent(current_, "prepare");
  if (e.pos >= e.capacity) compact();
}

bool ConquerWriter::announcePrepared() {
  Extent const e = extent(current_, "announcePrepared");
  if (e.pos >= e.capacity) return false;
  // Entries beyond currentPos are otherwise left from the table's earlier use, with sequences
  // below the current one: only a prepared entry holds the next sequence.
  char const* const entry = ConquerTable::entry(base(current_), e.pos);
  std::uint32_t const s = ConquerTable::slotIndex(entry);
  if (ConquerTable::sequence(entry) != sequence_ + 1 || s >= slots_.numSlots()) return false;
  KIV_TRACE(dh_, 3, "ConquerWriter::announcePrepared() slot ", s,
            " changed by the last writer, which ended before announcing it");
  notify(s);
  return true;
}

void ConquerWriter::notify(std::uint32_t s) {
  KIV_TRACE(dh_, 8, "ConquerWriter::notify() notifying slot ", s);
  Extent e = extent(current_, "notify");
  if (e.pos >= e.capacity) {
    compact();
    e = extent(current_, "notify");
  }
  std::uint32_t const p = slots_.conquerSlot(s);  // range-checks s
  char* const table = base(current_);
  if (p == noIndex) {
    ++liveCount_;
  } else {
    // A live entry lies in the written part of the table.
    if (p >= e.pos) {
      std::ostringstream os;
      os << "ConquerWriter::notify() conquer index out-of-range, tomb:" << p
         << " capacity:" << e.capacity << " currentPos:" << e.pos << " slot:" << s;
      corruption(os.str());
    }
    char* const old = ConquerTable::entry(table, p);
    if (ConquerTable::slotIndex(old) != s) {
      std::ostringstream os;
      os << "ConquerWriter::notify() conquer slot mismatch, slot:" << s << " index:" << p;
      corruption(os.str());
    }
    KIV_TRACE(dh_, 8, "ConquerWriter::notify() tombstoning ", p, " for slot ", s, " currentPos ",
              e.pos);
    Mem::Atomics::store32Release(old + 8, noIndex);
    ++counters_.tombstones;
  }
  if (e.pos >= e.capacity) {
    std::ostringstream os;
    os << "ConquerWriter::notify() conquer index out-of-range, pos:" << e.pos
       << " capacity:" << e.capacity;
    corruption(os.str());
  }
  ++sequence_;
  ConquerTable::setEntry(ConquerTable::entry(table, e.pos), sequence_, s);
  slots_.conquerSlotIs(s, e.pos);
  Mem::Atomics::store32Release(&header(current_)->currentPos, e.pos + 1);
  ++counters_.notifications;
  counters_.lastSequence = sequence_;
  kick_.doKickSleepers(sequence_);
}

void ConquerWriter::prune(std::uint64_t target) {
  // Release: a reader that acquires the raised minSeq, finds itself pruned past and re-reads the
  // table, sees every slot change up to `target` (each was written before its entry).
  if (target <= minSeq()) return;
  Mem::Atomics::store64Release(&header(0)->minSeq, target);
  ++counters_.prunes;
}

std::uint64_t ConquerWriter::pruneTarget() const {
  std::uint64_t const old = minSeq();
  if (waitingForReaders_) {
    KIV_TRACE(dh_, 5, "ConquerWriter::prune() cannot prune, waiting for readers");
    return old;
  }
  std::uint64_t const lowest = kick_.lowestSequence();
  if (old >= lowest) {
    KIV_TRACE(dh_, 5, "ConquerWriter::prune() cannot prune, minSeq:", old,
              " lowestSequence:", lowest);
    return old;
  }
  std::uint64_t const next = lowest == WriterKick::noReaders ? sequence_ : lowest;
  if (next <= old) return old;
  KIV_TRACE(dh_, 5, "ConquerWriter::prune() pruning up to minSeq:", next, " (old minSeq:", old,
            ") current sequence: ", sequence_);
  return next;
}

std::uint32_t ConquerWriter::prunePosition(std::uint64_t min, std::uint32_t end) const {
  if (min == 0 || end == 0 || entrySequence(0) > min) return 0;
  if (entrySequence(0) == min) return 1;
  // First position whose sequence is above min; sequences increase strictly.
  std::uint32_t low = 0;
  std::uint32_t high = end;
  while (low < high) {
    std::uint32_t const mid = (low + high) / 2;
    if (entrySequence(mid) <= min) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  return low;
}

void ConquerWriter::compact() {
  KIV_TRACE(dh_, 5, "ConquerWriter::compact() compacting ", tableWord(current_), " table");
  std::uint32_t const end = extent(current_, "compact").pos;
  std::uint64_t const min = pruneTarget();
  std::uint32_t const cut = prunePosition(min, end);
  // The other table grows before anything changes: a growth that cannot get its space leaves
  // both tables, minSeq and every conquerSlot as they were (the change that needed the room
  // fails, the table stays valid).
  std::uint32_t pruned = 0;
  for (std::uint32_t p = 0; p < cut; ++p) pruned += entrySlot(p) != noIndex;
  std::uint32_t const other = 1 - current_;
  std::uint32_t const live = liveCount_ - std::min(pruned, liveCount_);
  if (extent(other, "compact").capacity < 2 * std::uint64_t(live)) grow(other, live);
  // minSeq becomes the `min` the cut was made at, not a new answer of the readers: one who
  // acknowledged more meanwhile would raise it past entries copied below, and the new table
  // would begin at or below minSeq (invalid; a successor must recover).
  prune(min);
  for (std::uint32_t p = 0; p < cut; ++p) {
    std::uint32_t const s = entrySlot(p);
    if (s == noIndex) continue;
    KIV_TRACE(dh_, 8, "ConquerWriter::compact() pruning slot ", s);
    slots_.conquerSlotIs(s, noIndex);  // range-checks s
    --liveCount_;
  }
  std::uint32_t const room = extent(other, "compact").capacity;
  Mem::Atomics::store32Release(&header(other)->currentPos, 0);
  char* const from = base(current_);
  char* const to = base(other);
  std::uint32_t out = 0;
  for (std::uint32_t p = cut; p < end; ++p) {
    char const* const e = ConquerTable::entry(from, p);
    std::uint32_t const s = ConquerTable::slotIndex(e);
    if (s == noIndex) continue;
    if (out >= room) {
      std::ostringstream os;
      os << "ConquerWriter::compact() live entries exceed liveCount:" << liveCount_;
      corruption(os.str());
    }
    KIV_TRACE(dh_, 8, "ConquerWriter::compact() compacting slot ", s, " from ", p, " to slot ",
              out);
    ConquerTable::setEntry(ConquerTable::entry(to, out), ConquerTable::sequence(e), s);
    slots_.conquerSlotIs(s, out);
    ++out;
  }
  Mem::Atomics::store32Release(&header(other)->currentPos, out);
  Mem::Atomics::store32Release(&header(0)->currentTable, other);
  current_ = other;
  ++counters_.compactions;
}

void ConquerWriter::grow(std::uint32_t t, std::uint32_t live) {
  std::uint32_t const old = extent(t, "grow").capacity;
  std::size_t const bytes = ConquerTable::headerSize + 24 * std::size_t(live);
  std::size_t const wanted = 2 * std::size_t(live) + (Mem::roundUpToWholePage(bytes) - bytes) / 12;
  if (wanted <= old) return;
  auto const capacity = static_cast<std::uint32_t>(wanted);
  std::size_t const size = ConquerTable::fileSize(capacity);
  char* const oldBase = mem_[t].base();
  if (!mem_[t].resize(size)) {
    std::string const cause = Mem::errorText(errno);
    // An error once per incident: while growth keeps failing, each retry is a warning.
    KIV_TRACE(dh_, growFailing_ ? 1 : 0,
              "ConquerWriter::grow() failed to resize shared memory to size ", size,
              " - the system may be out of memory. ", mem_[t].name(), ": ", cause);
    growFailing_ = true;
    std::ostringstream os;
    os << "ConquerWriter::grow() Quarn table full (live notifications:" << live
       << " capacity:" << old << ") " << mem_[t].name() << ": " << cause;
    throw TableFullException(os.str());
  }
  growFailing_ = false;
  if (mem_[t].base() != oldBase) {
    KIV_TRACE(dh_, 5, "ConquerWriter::grow() remap base address changed from ",
              static_cast<void*>(oldBase), " to ", static_cast<void*>(mem_[t].base()));
  }
  Mem::Atomics::store32Release(&header(t)->capacity, capacity);
  KIV_TRACE(dh_, 3, "ConquerWriter::grow() ", mem_[t].name(), " from ", old, " to ", capacity,
            " notifications");
}

void ConquerWriter::updateNumReaders() {
  std::uint32_t const n = kick_.numReaders();
  KIV_TRACE(dh_, 5, "ConquerWriter::updateNumReaders() waitingForReaders:", waitingForReaders_,
            " readers:", n, " numReaders:", header(0)->load(header(0)->numReaders));
  if (!waitingForReaders_) Mem::Atomics::store32Release(&header(0)->numReaders, n);
}

std::uint32_t ConquerWriter::numReaders() const {
  return header(0)->load(header(0)->numReaders);
}

bool ConquerWriter::validateHeader(std::uint32_t t, std::uint32_t fenix, std::string& error) const {
  std::string why;
  std::ostringstream os;
  if (!header(t)->validate(mem_[t].mappedSize(), fenix, why)) {
    os << "ConquerWriter::validate() " << mem_[t].name() << " header validation failed: " << why;
  } else if (std::uint32_t const id = header(t)->load(header(t)->tableId); id != t) {
    os << "ConquerWriter::validate() " << mem_[t].name() << " tableId:" << id << " wanted:" << t;
  } else if (currentPos(t) > capacity(t)) {
    os << "ConquerWriter::validate() table->currentPos:" << currentPos(t)
       << " capacity:" << capacity(t) << " in " << mem_[t].name();
  } else {
    return true;
  }
  error = os.str();
  return false;
}

bool ConquerWriter::validateHeaders(std::uint32_t fenix, std::string& error) const {
  // The other table is written by the next compaction: its header must hold as much as the
  // current one's.
  for (std::uint32_t t = 0; t < 2; ++t) {
    if (!validateHeader(t, fenix, error)) return false;
  }
  if (std::uint32_t const cur = header(0)->load(header(0)->currentTable); cur != current_) {
    std::ostringstream os;
    os << "ConquerWriter::validate() currentTable:" << cur << " writer's:" << current_;
    error = os.str();
    return false;
  }
  return true;
}

bool ConquerWriter::validate(std::uint32_t fenix, std::string& error) const {
  if (!validateHeaders(fenix, error)) return false;
  std::ostringstream os;
  std::uint32_t const end = currentPos(current_);
  std::uint64_t previous = 0;
  bool const ordered = forEachEntry(end, [&](std::uint32_t p, std::uint64_t sequence, std::uint32_t) {
    if (p > 0 && sequence <= previous) {
      os << "ConquerWriter::validate() pos:" << p << " prevSeq:" << previous
         << " bad order: " << sequence;
      return false;
    }
    previous = sequence;
    return true;
  });
  if (!ordered) {
    error = os.str();
    return false;
  }
  // Every entry of the current table was appended or copied after minSeq was last raised.
  if (end > 0 && entrySequence(0) <= minSeq()) {
    os << "ConquerWriter::validate() minSeq:" << minSeq() << " first sequence:" << entrySequence(0);
    error = os.str();
    return false;
  }
  return true;
}

bool ConquerWriter::validateFile(bool grownAllowed) const {
  static char const* const failures[2] = {
      "ConquerWriter::validateFile(): conquer.1 validation failed",
      "ConquerWriter::validateFile(): conquer.2 validation failed"};
  for (std::uint32_t t = 0; t < 2; ++t) {
    if (mem_[t].local()) continue;
    std::string why;
    bool const valid = validateHeader(t, fenix_, why);
    if (!valid) KIV_TRACE(dh_, 0, why);
    if (!valid ||
        !ValidatorBase::validateFile(dh_, mem_[t].name(), ConquerTable::fileSize(capacity(t)),
                                     grownAllowed)) {
      KIV_TRACE(dh_, 0, failures[t]);
      return false;
    }
  }
  return true;
}

void ConquerWriter::cleanup() {
  for (auto& mem : mem_) {
    KIV_TRACE(dh_, 3, "ConquerWriter::cleanup() removing file: ", mem.name());
    mem.remove();
  }
  current_ = 0;
  sequence_ = 0;
  liveCount_ = 0;
}

}  // namespace Quarn
