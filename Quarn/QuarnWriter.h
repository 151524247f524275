#pragma once
// The single writer of one table: insert-or-update, remove, lookup, ordered iteration and a
// two-step in-place write, over the slot, bucket and notification files.
//
// Chains: bucket b = key.hash() % numBuckets heads a chain of occupied slots in ascending key
// order. Readers never lock; they rely on these orders:
// - Insert: the new slot gets its value and its forward link first; only then is the link that
//   makes it reachable published (one 64-bit release store with the version increased).
// - Remove: the slot is unlinked first, then loses OCCUPIED, then joins the free list (its link
//   changes with a new version, so a reader parked on it notices).
// - Update of a reachable slot: the value is staged in the lookaside slot, flags+2 sets LOOKASIDE
//   (readers then copy the lookaside value), the value is copied in place, flags+2|1 clears it.
// Corruption met while walking (cycle, index out of range, key in the wrong bucket, unoccupied
// slot in a chain) raises CorruptionDetectedException, and so does a write, remove or commit
// after which a mapping of the files is found truncated under the writer (Mem/Shared.h: it then
// holds zeros, and what was written there never reached the readers). Nothing is repaired in
// place: `recover` starts a new incarnation with the records that can still be trusted.
//
// Lack of space is a clean failure: every file's bytes are reserved when it is created or grows
// (Mem/Shared.h), and a change that needs a file to grow grows it before it changes anything, so
// a growth that cannot get its space ends the change with TableFullException and the table
// exactly as it was, every record kept. Space freed later lets the next change succeed.
//
// One live writer per table: a shared writer holds the table's writer lock (Quarn/WriterLock.h)
// from `attach` until it is destroyed or removes the files; a second one is refused.
//
// No heap allocation on write, remove and lookup once the table has grown to its working size.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"
#include "Mem/Shared.h"
#include "Quarn/ConquerWriter.h"
#include "Quarn/Exceptions.h"
#include "Quarn/Fenix.h"
#include "Quarn/IterHint.h"
#include "Quarn/RootPath.h"
#include "Quarn/Validator.h"
#include "Quarn/ValueSeq.h"
#include "Quarn/WriterKick.h"
#include "Quarn/WriterLock.h"
#include "Quarn/WriterTables.h"

namespace Quarn {

// Prints a key in trace lines when the key type can be printed.
template <class Key>
struct KeyText {
  Key const& key;
  friend std::ostream& operator<<(std::ostream& os, KeyText const& text) {
    if constexpr (requires { os << text.key; }) {
      return os << text.key;
    } else {
      return os << "<key>";
    }
  }
};

template <class Key, class Wrapper>
class QuarnWriter {
  static_assert(std::is_trivially_copyable_v<Wrapper> && sizeof(Wrapper) % 4 == 0 &&
                    alignof(Wrapper) <= 4,
                "table records are 4-byte packed plain values");

 public:
  using KeyType = Key;
  using ValueType = Wrapper;

  // `kick` wakes this table's readers; nullptr means none (always the case for a local table).
  // `rootDir` is the directory that holds the table directories (empty: Mem::defaultRootDir()).
  // `fileMode` is the mode of the files the writer creates (Mem::defaultFileMode: readable by
  // all, writable by the owner); readers need read access to every file of the table.
  QuarnWriter(Jorv::DebugHandler& dh, std::string const& tableName, std::uint32_t size,
              bool isLocal, std::string const& className, WriterKick* kick = nullptr,
              std::string const& rootDir = {}, unsigned fileMode = Mem::defaultFileMode)
      : dh_(dh),
        root_(tableName, rootDir),
        local_(isLocal),
        fileMode_(fileMode),
        kick_(kick != nullptr && !isLocal ? kick : &noReaders_),
        slots_(dh, root_.str(), isLocal, Jorv::typeName<Wrapper>(), className, sizeof(Wrapper),
               size),
        buckets_(dh, root_.str(), isLocal, size),
        conquer_(dh, root_.str(), isLocal, slots_, *kick_) {
    if (size == 0) throw Jorv::InvalidInitializeException("QuarnWriter() table size 0");
    slots_.mem().fileModeIs(fileMode);
    buckets_.mem().fileModeIs(fileMode);
    conquer_.fileModeIs(fileMode);
  }

  // Takes the table's writer lock (unless `writerLockIs` gave it), then maps the files and keeps
  // their entries when all four belong to this incarnation and validate, announcing a change the
  // last writer made but did not (ConquerWriter::prepare). When they belong to it but fail
  // validation (the last writer was killed inside a change), keeps the records that can be
  // trusted under fenix + 1 (`recover`); otherwise re-formats every file under fenix + 1. Throws
  // Jorv::RuntimeException when another writer of the table is alive (naming its pid) or the lock
  // cannot be taken, Jorv::MemoryResourceException when a file cannot be made (with the path, the
  // size asked and the cause, such as "no space left on device").
  void attach();
  // Maps the table's existing files read-only, as they are, so that a process that is not the
  // writer (a tool) can `validate` a live or abandoned table: no lock is taken and no file is
  // created, formatted or written; the incarnation checked is the "fenix" file's, or the slot
  // header's when that file is gone. Afterwards only `validate`, lookups, iteration and the
  // accessors may be used: every changing operation raises Jorv::RuntimeException. False with
  // the reason in `error` when a file is missing or cannot be mapped.
  bool inspect(std::string& error);
  bool inspecting() const noexcept { return inspecting_; }
  // The writer lock of this table taken by the writer's owner before anything of the table was
  // touched; the writer holds it from now on.
  void writerLockIs(Util::AutoLock lock) noexcept { lock_ = std::move(lock); }

  // Inserts or updates the entry of value.key; returns its value area in the slot.
  Wrapper const* write(Wrapper const& value, bool safe = true);
  // Removes key; copies the removed value into out. False when absent.
  bool remove(Key const& key, Wrapper& out);
  Wrapper lookup(Key const& key, bool& found) const;
  bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint) const;
  bool first(Wrapper& out) const {
    IterHint hint;
    return first(0, out, hint);
  }
  bool next(Key const& key, Wrapper& out, IterHint& hint) const;
  // Slot order (see QuarnBase::slotFirst): the occupied slots by ascending index, a sequential
  // read bounded by the slot count. Hints are {slot, bucket of its key}. A key that is gone is
  // resumed from its hint's slot (which a new key may hold by now); slotNext without a valid
  // hint then ends, slotAt begins again at the first slot.
  bool slotFirst(Wrapper& out, IterHint& hint) const { return slotFrom(0, out, hint); }
  bool slotAt(Key const& key, Wrapper& out, IterHint& hint) const;
  bool slotNext(Key const& key, Wrapper& out, IterHint& hint) const;

  // Returns a value area holding key and zeros for the caller to fill in place (the key must
  // stay unchanged); `directCommit` publishes it. One direct write may be pending at a time.
  Wrapper* directWrite(Key const& key);
  void directCommit();
  bool directPending() const noexcept { return pending_ != noIndex; }

  bool validate() {
    std::string error;
    return validate(error);
  }
  // The same, with the first failing check's message in `error` (empty when valid).
  bool validate(std::string& error) {
    Validator<Key, Wrapper> validator(dh_, *this);
    bool const valid = validator.validate(fenix_);
    error = valid ? std::string() : validator.error();
    return valid;
  }
  // The headers and file sizes alone, a file grown beyond its header allowed (see
  // ValidatorBase::checkHeaders); never throws.
  bool headersValid() noexcept;
  // A mapping of the files was truncated under this writer (checks the files only when a fault
  // was answered in this process since the last check).
  bool damageNoticed();
  // Re-formats every file under a new fenix (readers re-attach and resynchronise) and writes
  // back the records that can still be trusted (`trustedRecords`); the sequence goes on. Used
  // when the files are found damaged or fail validation while the writer runs. Raises
  // Jorv::Exception when the fresh files cannot be made.
  void recover(std::string const& why);
  // The records of occupied slots that lie wholly within the slot file as it is now (for a slot
  // under an update, the staged value if it names the slot's key); a key found in more than one
  // slot is dropped, since neither copy can be told right. Zero pages put in place of a
  // truncated part hold no occupied slot.
  std::vector<Wrapper> trustedRecords() const;
  bool validateFiles() const;
  void cleanup();
  std::uint32_t capacity() const noexcept { return slots_.numSlots(); }
  std::uint32_t size() const noexcept { return slots_.occupiedSlots(); }
  std::string mountStatus() const;
  SlotCounters const& writerCounters() const noexcept { return slots_.counters(); }

  std::uint32_t bucketOf(Key const& key) const noexcept { return key.hash() % numBuckets(); }
  std::uint32_t numBuckets() const noexcept { return buckets_.numBuckets(); }
  std::uint32_t fenix() const noexcept { return fenix_; }
  bool local() const noexcept { return local_; }
  std::string const& rootPath() const noexcept { return root_.str(); }
  Jorv::DebugHandler& debugHandler() const noexcept { return dh_; }
  SlotWriterTable& slots() noexcept { return slots_; }
  BucketWriterTable& buckets() noexcept { return buckets_; }
  ConquerWriter& conquer() noexcept { return conquer_; }

  // Result of a chain walk: `slot` is the key's slot when found, else the first slot with a
  // greater key (noIndex at the chain's end); `prev` is the slot whose link leads to `slot`
  // (noIndex: the bucket head).
  struct Found {
    std::uint32_t slot;
    std::uint32_t prev;
    bool found;
  };
  Found find(Key const& key, std::uint32_t bucket) const { return walk(key, bucket, "find"); }

 private:
  static Key const& keyAt(char const* slot) noexcept {
    return reinterpret_cast<Wrapper const*>(slot + SlotTable::valueOffset)->key;
  }
  Found walk(Key const& key, std::uint32_t bucket, char const* op) const;
  bool slotFrom(std::uint32_t from, Wrapper& out, IterHint& hint) const;
  // The slot holding `key` (the hint's when it still does), or noIndex when the key is gone.
  std::uint32_t slotOf(Key const& key, IterHint const& hint, char const* op) const;
  // The slot of `index`, checked to be a valid member of `bucket`'s chain.
  char* chainSlot(std::uint32_t index, std::uint32_t bucket, char const* op,
                  char const* occupiedOp) const {
    char* const s = occupiedSlot(index, occupiedOp);
    checkBucket(s, index, bucket, op);
    return s;
  }
  // The slot of `index`, checked to be occupied (every chained slot is).
  char* occupiedSlot(std::uint32_t index, char const* occupiedOp) const {
    char* const s = slots_.slot(index);
    if (!(SlotWriterTable::flags(s) & SlotTable::OCCUPIED)) [[unlikely]] {
      notOccupied(index, occupiedOp);
    }
    return s;
  }
  // Raises the corruption of a chained slot whose key does not belong to `bucket`.
  void checkBucket(char const* s, std::uint32_t index, std::uint32_t bucket, char const* op) const {
    if (bucketOf(keyAt(s)) != bucket) [[unlikely]] wrongBucket(index, bucket, op);
  }
  // The reports of a walk, out of line: every write, remove and lookup walks a chain.
  [[noreturn, gnu::cold, gnu::noinline]] void notOccupied(std::uint32_t index,
                                                          char const* occupiedOp) const;
  [[noreturn, gnu::cold, gnu::noinline]] void wrongBucket(std::uint32_t index,
                                                          std::uint32_t bucket,
                                                          char const* op) const;
  [[noreturn, gnu::cold, gnu::noinline]] void chainCycle(char const* op, std::uint32_t count,
                                                         std::uint32_t limit) const;
  char* linkUnit(std::uint32_t bucket, std::uint32_t prev) const {
    return prev == noIndex ? buckets_.bucket(bucket) : slots_.slot(prev);
  }
  std::uint32_t allocOrThrow();
  void writeValue(char* slot, void const* value);
  // Iteration reaches the slots in bucket order, which is random memory order: a cache and TLB
  // miss per record. This asks for the head slot of the bucket kPrefetchBuckets ahead, so that
  // its miss overlaps the handling of the records before it. A hint only: the bucket is read
  // within the mapping, the index is checked against the capacity, nothing of the slot is read.
  static constexpr std::uint32_t kPrefetchBuckets = 8;
  void prefetchAhead(std::uint32_t bucket) const noexcept {
    std::uint32_t const b = bucket + kPrefetchBuckets;
    if (b >= numBuckets() || BucketTable::fileSize(b + 1) > buckets_.mem().mappedSize()) return;
    std::uint32_t const head = linkTarget(BucketTable::bucket(buckets_.mem().base(), b));
    if (head < capacity()) __builtin_prefetch(slots_.slotUnchecked(head));
  }
  void copyOut(char const* slot, Wrapper& out) const {
    Mem::Atomics::copyFromShared(&out, slot + SlotTable::valueOffset, sizeof(Wrapper));
  }
  bool attachAll(std::uint32_t fenix, bool force);
  // Files whose headers all check out but whose structure does not are what a writer killed
  // inside a change leaves (a notification claimed but not yet published, an update between its
  // flag steps, a count not yet adjusted, a compaction half done, a file grown before its
  // header). They are recovered like damage met while running (`recover`): the records are
  // kept under a new fenix, which makes readers re-attach and resynchronise. False when even
  // that fails.
  bool recoverInterrupted();
  // Ends operation `op` as corrupt when a mapping was found damaged after it.
  void checkIntact(char const* op) {
    if (damageNoticed()) [[unlikely]] truncatedUnder(op);
  }
  [[noreturn, gnu::cold, gnu::noinline]] void truncatedUnder(char const* op) const {
    corruption(std::string("QuarnWriter::") + op + "() files of " + root_.str() +
               " truncated under the writer");
  }
  static std::uint32_t nextFenix(std::uint32_t fenix) noexcept {
    return fenix + 1 == 0 ? 1 : fenix + 1;
  }
  [[noreturn]] void corruption(std::string const& text) const {
    KIV_TRACE(dh_, 0, text);
    throw CorruptionDetectedException(text);
  }
  // The mappings of an inspection are read-only: a change would fault, so it is refused first.
  void refuseWhileInspecting(char const* op) const {
    if (inspecting_) {
      throw Jorv::RuntimeException(std::string("QuarnWriter::") + op +
                                   "() on a table inspected read-only: " + root_.str());
    }
  }

  Jorv::DebugHandler& dh_;
  RootPath root_;
  bool local_;
  unsigned fileMode_;
  Util::AutoLock lock_;  // held by a shared writer from attach on
  NoReaderKick noReaders_;
  WriterKick* kick_;
  SlotWriterTable slots_;
  BucketWriterTable buckets_;
  ConquerWriter conquer_;
  std::uint32_t fenix_ = 0;
  std::uint32_t pending_ = noIndex;
  bool pendingNew_ = false;
  bool inspecting_ = false;
  std::uint64_t damageSeen_ = Mem::damageCount();
  Key pendingKey_{};
};

// ---- implementation

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::attachAll(std::uint32_t fenix, bool force) {
  pending_ = noIndex;
  bool kept = slots_.attach(fenix, force);
  kept = buckets_.attach(fenix, force) && kept;
  kept = conquer_.attachConquer(0, fenix, force) && kept;
  kept = conquer_.attachConquer(1, fenix, force) && kept;
  conquer_.restore();
  return kept;
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::attach() {
  bool fresh = local_;
  if (local_) {
    fenix_ = static_cast<std::uint32_t>(::getpid());
  } else {
    // Before anything of the table is read: a second writer must not touch it.
    if (!lock_.locked()) lock_ = Util::AutoLock(root_.str(), fileMode_);
    fenix_ = FenixFile::read(root_.str());
    if (fenix_ == 0) fenix_ = Util::encodeFenix(::getpid() & 0xffff, Util::nextInstanceId());
    fresh = slots_.mem().sizeOnDisk() == 0 && buckets_.mem().sizeOnDisk() == 0 &&
            conquer_.mem(0).sizeOnDisk() == 0 && conquer_.mem(1).sizeOnDisk() == 0;
  }
  // A local table is always new and nothing of it can survive: it keeps the pid as its fenix.
  bool const kept = attachAll(fenix_, false) || local_;
  bool const intact = kept && validate();
  bool valid = intact;
  if (kept && !valid && !local_ && headersValid()) valid = recoverInterrupted();
  if (!valid) {
    // New files hold nothing to lose; files of another incarnation or record type do.
    if (fresh) {
      KIV_TRACE(dh_, 3, "QuarnWriter::attach() new files in ", root_.str());
    } else {
      KIV_TRACE(dh_, 1, "QuarnWriter::attach() failed, all entries from ", root_.str(),
                " will be lost");
    }
    fenix_ = nextFenix(fenix_);
    attachAll(fenix_, true);
    if (!validate()) {
      KIV_TRACE(dh_, 0, "QuarnWriter::attach() failed validation");
      throw Jorv::RuntimeException("QuarnWriter::attach() failed validation");
    }
    KIV_TRACE(dh_, 3, "QuarnWriter::attach(): re-formatted successfully");
  }
  if (!local_ && !FenixFile::write(root_.str(), fenix_, fileMode_)) {
    throw Jorv::RuntimeException("QuarnWriter::attach() cannot write fenix file in " +
                                 root_.str() + ": " + Mem::errorText(errno));
  }
  if (intact && !local_) conquer_.announcePrepared();
  KIV_TRACE(dh_, 3, "QuarnWriter::attach() success ", root_.str(), " capacity: ", capacity(),
            " fenixId: ", fenix_);
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::inspect(std::string& error) {
  pending_ = noIndex;
  inspecting_ = true;
  if (local_) {
    error = "QuarnWriter::inspect() a local table has no files";
    return false;
  }
  fenix_ = FenixFile::read(root_.str());
  char const* failed = nullptr;
  if (!slots_.inspect()) {
    failed = "slots";
  } else if (!buckets_.inspect()) {
    failed = "buckets";
  } else {
    if (fenix_ == 0 && slots_.mem().mappedSize() >= SlotTable::headerSize) {
      fenix_ = Mem::Atomics::load32Acquire(&slots_.header()->fenix);
    }
    if (!conquer_.inspect(0, fenix_)) {
      failed = "conquer.1";
    } else if (!conquer_.inspect(1, fenix_)) {
      failed = "conquer.2";
    }
  }
  if (failed != nullptr) {
    error = "QuarnWriter::inspect() cannot map " + root_.file(failed) + " read-only: " +
            std::strerror(errno);
    return false;
  }
  conquer_.restore();
  KIV_TRACE(dh_, 3, "QuarnWriter::inspect() ", root_.str(), " fenixId: ", fenix_,
            " slots: ", capacity());
  return true;
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::headersValid() noexcept {
  try {
    return Validator<Key, Wrapper>(dh_, *this).checkHeaders(fenix_, true);
  } catch (std::exception const&) {
    return false;
  }
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::recoverInterrupted() {
  try {
    recover("QuarnWriter::attach() files of " + root_.str() +
            " failed validation, keeping the records that can be trusted");
    return true;
  } catch (std::exception const& e) {
    KIV_TRACE(dh_, 0, "QuarnWriter::attach() recovery failed: ", e.what());
    return false;
  }
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::damageNoticed() {
  std::uint64_t const count = Mem::damageCount();
  if (count == damageSeen_) [[likely]] return false;
  if (slots_.mem().damaged() || buckets_.mem().damaged() || conquer_.mem(0).damaged() ||
      conquer_.mem(1).damaged()) {
    return true;
  }
  damageSeen_ = count;  // the faults were in other mappings of this process
  return false;
}

template <class Key, class Wrapper>
std::vector<Wrapper> QuarnWriter<Key, Wrapper>::trustedRecords() const {
  std::vector<Wrapper> out;
  QuarnMem const& mem = slots_.mem();
  // The slot count is the writer's own, not the header's; the file's size bounds it.
  std::size_t const within = std::min(mem.mappedFileSize(), mem.mappedSize());
  std::uint32_t n = 0;
  if (within >= SlotTable::fileSize(slots_.slotSize(), 0)) {
    n = static_cast<std::uint32_t>(std::min<std::size_t>(
        slots_.numSlots(), (within - SlotTable::fileSize(slots_.slotSize(), 0)) / slots_.slotSize()));
  }
  for (std::uint32_t i = 0; i < n; ++i) {
    char const* const s = slots_.slotUnchecked(i);
    std::uint32_t const flags = SlotWriterTable::flags(s);
    if (!(flags & SlotTable::OCCUPIED)) continue;
    if (!(flags & SlotTable::LOOKASIDE)) {
      copyOut(s, out.emplace_back());
      continue;
    }
    // An update stopped between its two flag steps: LOOKASIDE is set only once the whole new
    // value is staged, so the staged value is the update's result when it names this key.
    Wrapper staged;
    Mem::Atomics::copyFromShared(&staged, slots_.lookasideValue(), sizeof staged);
    if (staged.key == keyAt(s)) out.push_back(staged);
  }
  auto const less = [](Wrapper const& a, Wrapper const& b) { return a.key < b.key; };
  std::sort(out.begin(), out.end(), less);
  auto kept = out.begin();
  for (auto it = out.begin(); it != out.end();) {
    auto run = it + 1;
    while (run != out.end() && !less(*it, *run)) ++run;
    if (run - it == 1) *kept++ = *it;
    it = run;
  }
  out.erase(kept, out.end());
  return out;
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::recover(std::string const& why) {
  refuseWhileInspecting("recover");
  KIV_TRACE(dh_, 0, "QuarnWriter::recover() ", root_.str(), " fenixId: ", fenix_, ": ", why);
  std::vector<Wrapper> const kept = trustedRecords();
  std::uint64_t const sequence = conquer_.sequence();
  fenix_ = nextFenix(fenix_);
  attachAll(fenix_, true);
  damageSeen_ = Mem::damageCount();  // the fresh mappings are whole
  conquer_.resumeSequence(sequence);
  for (Wrapper const& record : kept) write(record);
  if (!validate()) {
    KIV_TRACE(dh_, 0, "QuarnWriter::recover() failed validation");
    throw Jorv::RuntimeException("QuarnWriter::recover() failed validation");
  }
  if (!local_ && !FenixFile::write(root_.str(), fenix_, fileMode_)) {
    throw Jorv::RuntimeException("QuarnWriter::recover() cannot write fenix file in " +
                                 root_.str() + ": " + Mem::errorText(errno));
  }
  if (kept.empty()) {
    KIV_TRACE(dh_, 0, "QuarnWriter::recover() no record of ", root_.str(),
              " can be trusted, the table starts empty; fenixId: ", fenix_);
  } else {
    KIV_TRACE(dh_, 1, "QuarnWriter::recover() ", root_.str(), " re-formatted with ",
              kept.size(), " trusted records; fenixId: ", fenix_);
  }
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::notOccupied(std::uint32_t index, char const* occupiedOp) const {
  std::ostringstream os;
  os << "QuarnWriter::" << occupiedOp << "() slot: " << index << " not marked as occupied";
  corruption(os.str());
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::wrongBucket(std::uint32_t index, std::uint32_t bucket,
                                            char const* op) const {
  std::ostringstream os;
  os << "QuarnWriter::" << op << "() corrupt key detected, slot: " << index
     << " bucket:" << bucket;
  corruption(os.str());
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::chainCycle(char const* op, std::uint32_t count,
                                           std::uint32_t limit) const {
  std::ostringstream os;
  os << "QuarnWriter::" << op << "() hash chain cycle detected, slotCount:" << count
     << " capacity:" << limit;
  corruption(os.str());
}

template <class Key, class Wrapper>
typename QuarnWriter<Key, Wrapper>::Found QuarnWriter<Key, Wrapper>::walk(Key const& key,
                                                                          std::uint32_t bucket,
                                                                          char const* op) const {
  std::uint32_t prev = noIndex;
  std::uint32_t cur = linkTarget(buckets_.bucket(bucket));
  std::uint32_t const limit = capacity();
  for (std::uint32_t count = 1; cur != noIndex; ++count) {
    if (count > limit) [[unlikely]] chainCycle(op, count, limit);
    char const* const s = occupiedSlot(cur, op);
    Key const& slotKey = keyAt(s);
    // A slot holding `key` itself belongs to `bucket` (the bucket was computed from `key`): only
    // the others are hashed to prove it, which spares the hash on every hit. Equality is tested
    // first: it is the common outcome and cheaper than an ordering.
    if (slotKey == key) return {cur, prev, true};
    checkBucket(s, cur, bucket, op);
    if (key < slotKey) return {cur, prev, false};
    prev = cur;
    cur = SlotWriterTable::next(s);
  }
  return {noIndex, prev, false};
}

template <class Key, class Wrapper>
std::uint32_t QuarnWriter<Key, Wrapper>::allocOrThrow() {
  conquer_.makeRoom();  // a compaction that fails must find the slot table untouched
  std::uint32_t const i = slots_.alloc();
  if (i != noIndex) return i;
  std::ostringstream os;
  os << "SlotWriter::alloc() Quarn table full (occupancy:" << slots_.occupiedSlots()
     << " tableSize:" << slots_.tableSize() << ") " << root_.str();
  if (slots_.growError() != 0) os << ": " << Mem::errorText(slots_.growError());
  // Raised to the caller, who reports it; the cause was traced by the growth that failed.
  KIV_TRACE(dh_, 1, os.str());
  throw TableFullException(os.str());
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::writeValue(char* s, void const* value) {
  if (SlotWriterTable::flags(s) & SlotTable::OCCUPIED) {
    ValueSeq::stageValue(slots_.lookasideValue(), value, sizeof(Wrapper));
  }
  std::uint32_t const begun = ValueSeq::beginValueWrite(s);
  Mem::Atomics::copyToShared(SlotWriterTable::value(s), value, sizeof(Wrapper));
  ValueSeq::endValueWrite(s, begun);
}

template <class Key, class Wrapper>
Wrapper const* QuarnWriter<Key, Wrapper>::write(Wrapper const& value, bool /*safe*/) {
  refuseWhileInspecting("write");
  Key const& key = value.key;
  std::uint32_t const b = bucketOf(key);
  Found const f = find(key, b);
  std::uint32_t i = f.slot;
  if (f.found) {
    conquer_.prepare(i);
    writeValue(slots_.slot(i), &value);
  } else {
    i = allocOrThrow();  // may grow and move the slot mapping: addresses are taken after it
    conquer_.prepare(i);
    char* const s = slots_.slot(i);
    publishLink(s, f.slot);
    writeValue(s, &value);
    publishLink(linkUnit(b, f.prev), i);
  }
  ++slots_.counters().writes;
  conquer_.notify(i);
  checkIntact("write");
  return reinterpret_cast<Wrapper const*>(SlotWriterTable::value(slots_.slotUnchecked(i)));
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::remove(Key const& key, Wrapper& out) {
  refuseWhileInspecting("remove");
  std::uint32_t const b = bucketOf(key);
  Found const f = find(key, b);
  if (!f.found) {
    KIV_TRACE(dh_, 8, "QuarnWriter::remove() ", KeyText<Key>{key}, " bucket:", b, " not found");
    return false;
  }
  conquer_.prepare(f.slot);
  char* const s = slots_.slot(f.slot);
  copyOut(s, out);
  publishLink(linkUnit(b, f.prev), SlotWriterTable::next(s));
  SlotWriterTable::flagsIs(s, SlotWriterTable::flags(s) & ~SlotTable::OCCUPIED);
  slots_.pushFree(f.slot);
  SlotTable::Header* const h = slots_.header();
  Mem::Atomics::store32Release(&h->occupiedSlots, h->load(h->occupiedSlots) - 1);
  ++slots_.counters().removes;
  conquer_.notify(f.slot);
  checkIntact("remove");
  return true;
}

template <class Key, class Wrapper>
Wrapper QuarnWriter<Key, Wrapper>::lookup(Key const& key, bool& found) const {
  Wrapper out{};
  Found const f = walk(key, bucketOf(key), "lookup");
  found = f.found;
  if (found) copyOut(slots_.slotUnchecked(f.slot), out);
  return out;
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::first(std::uint32_t bucket, Wrapper& out, IterHint& hint) const {
  for (std::uint32_t b = bucket; b < numBuckets(); ++b) {
    std::uint32_t const head = linkTarget(buckets_.bucket(b));
    if (head == noIndex) continue;
    copyOut(chainSlot(head, b, "first", "first"), out);
    hint = {head, b};
    prefetchAhead(b);
    return true;
  }
  KIV_TRACE(dh_, 8, "QuarnWriter::first() none found!");
  return false;
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::next(Key const& key, Wrapper& out, IterHint& hint) const {
  std::uint32_t bucket;
  std::uint32_t candidate;
  if (hint.slot < capacity() && hint.bucket < numBuckets() &&
      (SlotWriterTable::flags(slots_.slotUnchecked(hint.slot)) & SlotTable::OCCUPIED) &&
      keyAt(slots_.slotUnchecked(hint.slot)) == key) {
    bucket = hint.bucket;
    candidate = SlotWriterTable::next(slots_.slotUnchecked(hint.slot));
  } else {
    // The key was removed (or the hint is stale): resume after it in its own bucket.
    bucket = bucketOf(key);
    Found const f = walk(key, bucket, "next");
    candidate = f.found ? SlotWriterTable::next(slots_.slotUnchecked(f.slot)) : f.slot;
  }
  if (candidate == noIndex) return first(bucket + 1, out, hint);
  char const* const s = chainSlot(candidate, bucket, "next", "lookup");
  // Chains ascend strictly, so an iteration visits (bucket, key) pairs in strictly increasing
  // order and ends after at most capacity() entries. A link back to a key that is not greater
  // (a cycle, a self-loop, a misordered chain) would repeat entries forever: it is corruption.
  if (!(key < keyAt(s))) {
    std::ostringstream os;
    os << "QuarnWriter::next() hash chain cycle detected, slot:" << candidate
       << " bucket:" << bucket << " key not above " << KeyText<Key>{key};
    corruption(os.str());
  }
  copyOut(s, out);
  hint = {candidate, bucket};
  prefetchAhead(bucket);
  KIV_TRACE(dh_, 9, "QuarnWriter::next()", ", saving new slot hint ", hint);
  return true;
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::slotFrom(std::uint32_t from, Wrapper& out, IterHint& hint) const {
  for (std::uint32_t i = from; i < slots_.numSlots(); ++i) {
    char const* const s = slots_.slotUnchecked(i);
    if (!(SlotWriterTable::flags(s) & SlotTable::OCCUPIED)) continue;
    copyOut(s, out);
    hint = {i, bucketOf(out.key)};
    return true;
  }
  return false;
}

template <class Key, class Wrapper>
std::uint32_t QuarnWriter<Key, Wrapper>::slotOf(Key const& key, IterHint const& hint,
                                                char const* op) const {
  if (hint.slot < slots_.numSlots() &&
      (SlotWriterTable::flags(slots_.slotUnchecked(hint.slot)) & SlotTable::OCCUPIED) &&
      keyAt(slots_.slotUnchecked(hint.slot)) == key) {
    return hint.slot;
  }
  Found const f = walk(key, bucketOf(key), op);
  return f.found ? f.slot : noIndex;
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::slotAt(Key const& key, Wrapper& out, IterHint& hint) const {
  std::uint32_t const at = slotOf(key, hint, "slotAt");
  if (at != noIndex) return slotFrom(at, out, hint);
  return slotFrom(hint.slot < slots_.numSlots() ? hint.slot : 0, out, hint);
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::slotNext(Key const& key, Wrapper& out, IterHint& hint) const {
  std::uint32_t const at = slotOf(key, hint, "slotNext");
  if (at != noIndex) return slotFrom(at + 1, out, hint);
  return hint.slot < slots_.numSlots() && slotFrom(hint.slot, out, hint);
}

template <class Key, class Wrapper>
Wrapper* QuarnWriter<Key, Wrapper>::directWrite(Key const& key) {
  refuseWhileInspecting("directWrite");
  if (pending_ != noIndex) {
    throw Jorv::RuntimeException("QuarnWriter::directWrite() a direct write is already pending");
  }
  std::uint32_t const b = bucketOf(key);
  Found const f = find(key, b);
  Wrapper fresh;
  std::memset(static_cast<void*>(&fresh), 0, sizeof fresh);
  fresh.key = key;
  char* target;
  if (f.found) {
    pending_ = f.slot;
    pendingNew_ = false;
    target = slots_.lookasideValue();
  } else {
    pending_ = allocOrThrow();
    pendingNew_ = true;
    target = SlotWriterTable::value(slots_.slot(pending_));
  }
  pendingKey_ = key;
  ValueSeq::stageValue(target, &fresh, sizeof fresh);
  KIV_TRACE(dh_, 8, "QuarnWriter::directWrite() ", KeyText<Key>{key},
            pendingNew_ ? " new" : " existing", " bucket:", b, " slot:", pending_,
            " next:", f.slot);
  return reinterpret_cast<Wrapper*>(target);
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::directCommit() {
  if (pending_ == noIndex) {
    throw Jorv::RuntimeException("QuarnWriter::directCommit() no direct write pending");
  }
  std::uint32_t const i = pending_;
  pending_ = noIndex;
  KIV_TRACE(dh_, 8, "QuarnWriter::directCommit() slot: ", i);
  try {
    conquer_.prepare(i);
  } catch (TableFullException const&) {
    // Writes in between used the room directWrite made: a new slot goes back unpublished.
    if (pendingNew_) slots_.release(i);
    throw;
  }
  std::uint32_t const b = bucketOf(pendingKey_);
  Found f{noIndex, noIndex, false};
  char* const s = slots_.slot(i);
  if (pendingNew_) {
    f = find(pendingKey_, b);
    publishLink(s, f.slot);
  }
  std::uint32_t const flags = SlotWriterTable::flags(s);
  if (flags & SlotTable::OCCUPIED) {
    std::uint32_t const begun = ValueSeq::beginValueWrite(s);
    char staged[sizeof(Wrapper)];
    Mem::Atomics::copyFromShared(staged, slots_.lookasideValue(), sizeof staged);
    Mem::Atomics::copyToShared(SlotWriterTable::value(s), staged, sizeof staged);
    ValueSeq::endValueWrite(s, begun);
  } else {
    // Written in place while no link reaches the slot: the bracket's end alone makes it occupied.
    ValueSeq::endValueWrite(s, flags);
  }
  if (pendingNew_) publishLink(linkUnit(b, f.prev), i);
  ++slots_.counters().writes;
  conquer_.notify(i);
  checkIntact("directCommit");
}

template <class Key, class Wrapper>
bool QuarnWriter<Key, Wrapper>::validateFiles() const {
  return ValidatorBase::validateFiles(dh_, slots_, buckets_, conquer_);
}

template <class Key, class Wrapper>
void QuarnWriter<Key, Wrapper>::cleanup() {
  refuseWhileInspecting("cleanup");
  KIV_TRACE(dh_, 3, "QuarnWriter::cleanup() removing Quarn files ", root_.str());
  pending_ = noIndex;
  if (local_) {
    buckets_.cleanup();
    slots_.cleanup();
    conquer_.cleanup();
    return;
  }
  // Only the table's writer removes its files: one that has not attached takes the lock first,
  // and is refused while another writer lives. The lock goes with the files.
  if (!lock_.locked()) lock_ = Util::AutoLock(root_.str(), fileMode_);
  buckets_.cleanup();
  slots_.cleanup();
  conquer_.cleanup();
  ::unlink(root_.file("fenix").c_str());
  ::unlink(root_.file("last-owner").c_str());
  lock_ = Util::AutoLock();
}

template <class Key, class Wrapper>
std::string QuarnWriter<Key, Wrapper>::mountStatus() const {
  std::ostringstream os;
  os << "writer " << root_.str() << (local_ ? " local" : " shared") << " fenix:" << fenix_
     << " slots:" << capacity() << " occupied:" << size() << " buckets:" << numBuckets();
  return os.str();
}

}  // namespace Quarn
