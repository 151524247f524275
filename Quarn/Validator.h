#pragma once
// Full structural check of a writer's table: headers (both notification tables included), file
// sizes on disk, every hash chain (occupied, in its key's bucket, in strictly ascending key
// order: lookups stop at the first greater key, so a misordered chain hides keys), the free list
// and the current notification table, and their cross-references. Never repairs, never throws to
// its caller, never loops: each slot may be reached once (a bit set), so a cyclic chain or free
// list ends at the first repeated slot.
//
// Speed: every file is read once, in address order, through a descriptor (TableFileReader), so
// the check is bound by memory bandwidth and never touches the pages of a mapping that was just
// made. Chains and the free list link slots anywhere in the file, and chasing those links through
// the file costs a cache and TLB miss per slot; so one sequential pass first gathers each slot's
// link and key bucket into a compact array (8 bytes a slot), and copies its key into another, and
// the chains, their key order and the free list are checked there. Likewise each slot's claim on a
// notification position goes into an array indexed by position, which the notification pass then
// compares with the entries in order. The arrays live for the check only (about 32 bytes a slot
// for a 24-byte key).
//
// Used by a restarting writer (keep the files or re-format them) and by the writer's mounter when
// a reader reports corruption.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Jorv/Platform.h"
#include "Quarn/Exceptions.h"
#include "Quarn/WriterTables.h"

namespace Quarn {

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
  // The first of them: every header against its mapping, the fenix and the writer's
  // configuration, and the files' sizes on disk (`grownAllowed`: a file may be larger than its
  // header says, as a writer killed inside a growth leaves it). Does not walk the structure.
  bool checkHeaders(std::uint32_t fenix, bool grownAllowed = false);
  std::string const& error() const noexcept { return error_; }

  // Every slot reached through the chains: each occupied, in its key's bucket, reached once.
  virtual bool walkOccupiedSlots() = 0;
  bool walkFreeSlots();
  // Marks a slot reached through a chain; false when it was reached before.
  bool markOccupied(std::uint32_t slotIndex);

  // The file's size on disk against the size its header requires.
  static bool validateFile(Jorv::DebugHandler& dh, std::string const& fileName,
                           std::size_t expectedSize, bool grownAllowed = false);
  // validateFile for every file of a shared table, and both notification headers.
  static bool validateFiles(Jorv::DebugHandler& dh, SlotWriterTable const& slots,
                            BucketWriterTable const& buckets, ConquerWriter const& conquer,
                            bool grownAllowed = false);

 protected:
  // What the walks need of one slot, gathered by one sequential pass over the slot file so that
  // following links touches this compact array instead of the file.
  struct Link {
    std::uint32_t next;
    std::uint32_t bucket;  // of its key when OCCUPIED, else noIndex
  };

  // The sequential pass: for every slot, its link and its key's bucket (`bucketOf(slot, index)`
  // for an occupied one), no LOOKASIDE on any slot, and the claim of its live notification.
  template <class BucketOf>
  bool scanSlots(BucketOf&& bucketOf);
  // Follows every chain from its bucket over `links_`, marking each slot reached and checking
  // that each key is less than the next one's: `keyLess(a, b)` compares the keys of occupied
  // slots a and b, `prefetchKey(i)` hints that slot i's key is compared next.
  template <class KeyLess, class PrefetchKey>
  bool walkChains(KeyLess&& keyLess, PrefetchKey&& prefetchKey);

  bool fail(std::string text);
  template <class... Args>
  bool failWith(Args const&... args) {
    std::ostringstream os;
    (os << ... << args);
    return fail(os.str());
  }
  // A slot with LOOKASIDE set: stuck on an occupied slot, never allowed on a free one.
  bool lookasideSet(std::uint32_t s, std::uint32_t flags, bool occupied);
  // Records that slot `s` (free or not) holds its live entry at `position` of the current table.
  // That position must lie in the written part of the table (a writer that died between writing
  // an entry and advancing currentPos leaves a claim that the next append overwrites) and be
  // claimed once; whether the entry names `s` is checked by the notification pass.
  bool claim(std::uint32_t s, std::uint32_t position, bool free);
  bool checkNotifications();
  bool checkOccupiedCount(std::uint32_t count);
  // Raises CorruptionDetectedException for a chain that reaches slot `i` from `bucket`.
  [[noreturn]] void chainBreak(std::uint32_t i, std::uint32_t bucket, bool head,
                               bool unoccupied) const;
  // Raises the slot range exception of the writer's tables for index `i`.
  [[noreturn]] void outOfRange(std::uint32_t i) const;
  bool occupied(std::uint32_t s) const noexcept { return links_[s].bucket != noIndex; }
  // markOccupied without its trace line, for s below numSlots.
  bool mark(std::uint32_t s) {
    std::uint64_t& word = slotMarks_[s / 64];
    std::uint64_t const bit = std::uint64_t(1) << (s % 64);
    if (word & bit) return failWith("Validator::markOccupied() duplicate slot: ", s);
    word |= bit;
    ++marked_;
    return true;
  }

  Jorv::DebugHandler& dh_;
  std::string rootPath_;
  SlotWriterTable& slots_;
  BucketWriterTable& buckets_;
  ConquerWriter& conquer_;
  std::unique_ptr<Link[]> links_;         // one per slot
  std::vector<std::uint64_t> slotMarks_;  // one bit per slot: reached by a chain or the free list
  std::vector<std::uint32_t> claims_;     // per written position: the slot claiming it, or noIndex
  std::uint32_t marked_ = 0;
  std::string error_;
};

template <class BucketOf>
bool ValidatorBase::scanSlots(BucketOf&& bucketOf) {
  std::uint32_t const n = slots_.numSlots();
  std::uint32_t const size = slots_.slotSize();
  links_.reset(new Link[n]);
  TableFileReader file(slots_.mem());
  std::uint32_t const batch = static_cast<std::uint32_t>(TableFileReader::chunkSize / size);
  for (std::uint32_t first = 0; first < n; first += batch) {
    std::uint32_t const count = std::min(batch, n - first);
    char const* const chunk =
        file.read(SlotTable::fileSize(size, first), std::size_t(size) * count);
    for (std::uint32_t j = 0; j < count; ++j) {
      std::uint32_t const i = first + j;
      char const* const s = chunk + std::size_t(size) * j;
      std::uint32_t const flags = SlotWriterTable::flags(s);
      bool const occupied = flags & SlotTable::OCCUPIED;
      links_[i] = {SlotWriterTable::next(s), occupied ? bucketOf(s, i) : noIndex};
      // LOOKASIDE marks an update in progress on a chained slot. On a free slot it would
      // survive the slot's reuse (an insert only adds to the flags), and readers would then
      // read another key's staged value for it.
      if (flags & SlotTable::LOOKASIDE) return lookasideSet(i, flags, occupied);
      std::uint32_t const c =
          Mem::Atomics::load32Relaxed(s + offsetof(SlotTable::Slot, conquerSlot));
      if (c != noIndex && !claim(i, c, !occupied)) return false;
    }
  }
  return true;
}

template <class KeyLess, class PrefetchKey>
bool ValidatorBase::walkChains(KeyLess&& keyLess, PrefetchKey&& prefetchKey) {
  KIV_TRACE(dh_, 5, "Validator::walkOccupiedSlots() starting");
  std::uint32_t const n = slots_.numSlots();
  std::uint32_t const numBuckets = buckets_.numBuckets();
  (void)buckets_.bucket(numBuckets - 1);  // the whole array is mapped (throws otherwise)
  bool const traceMarks = dh_.enabled(8);
  TableFileReader file(buckets_.mem());
  constexpr std::uint32_t batch = TableFileReader::chunkSize / 8;
  // Two prefetch stages run ahead of the walk, so that the misses of many buckets overlap
  // instead of each chain waiting for its own: `far` buckets ahead, the head's link is asked for;
  // `near` buckets ahead, that link has arrived and gives the second slot, whose link is asked
  // for with both keys a two-slot chain compares. Hints only: every index is checked against n
  // before it addresses an array, and the walk below reads and checks everything again.
  constexpr std::uint32_t far = 24;
  constexpr std::uint32_t near = 12;
  std::uint32_t const before = marked_;
  for (std::uint32_t first = 0; first < numBuckets; first += batch) {
    std::uint32_t const count = std::min(batch, numBuckets - first);
    char const* const chunk = file.read(BucketTable::fileSize(first), std::size_t(8) * count);
    for (std::uint32_t j = 0; j < count; ++j) {
      if (j + far < count) {
        std::uint32_t const later = linkTarget(chunk + 8 * std::size_t(j + far));
        if (later < n) __builtin_prefetch(&links_[later]);
      }
      if (j + near < count) {
        std::uint32_t const head = linkTarget(chunk + 8 * std::size_t(j + near));
        if (head < n) {
          std::uint32_t const second = links_[head].next;
          if (second < n) {
            __builtin_prefetch(&links_[second]);
            prefetchKey(head);
            prefetchKey(second);
          }
        }
      }
      std::uint32_t const b = first + j;
      std::uint32_t prev = noIndex;
      for (std::uint32_t i = linkTarget(chunk + 8 * std::size_t(j)); i != noIndex;) {
        if (i >= n) outOfRange(i);
        Link const link = links_[i];
        if (link.bucket != b) chainBreak(i, b, prev == noIndex, link.bucket == noIndex);
        // A slot reached twice ends a cycle here.
        if (traceMarks ? !markOccupied(i) : !mark(i)) return false;
        if (prev != noIndex && !keyLess(prev, i)) {
          return failWith("Validator::walkOccupiedSlots() chain of bucket ", b,
                          " out of key order: slot ", prev, " then slot ", i);
        }
        if (link.next < n) prefetchKey(link.next);
        prev = i;
        i = link.next;
      }
    }
  }
  std::uint32_t const count = marked_ - before;
  KIV_TRACE(dh_, 5, "Validator::walkOccupiedSlots() marked ", count, " slots");
  return checkOccupiedCount(count);
}

template <class Key, class Wrapper>
class Validator final : public ValidatorBase {
 public:
  Validator(Jorv::DebugHandler& dh, QuarnWriter<Key, Wrapper>& writer)
      : ValidatorBase(dh, writer.rootPath(), writer.slots(), writer.buckets(), writer.conquer()),
        writer_(writer) {}

  bool walkOccupiedSlots() override {
    std::unique_ptr<Key[]> const keys(new Key[slots_.numSlots()]);
    Key* const k = keys.get();
    if (!scanSlots([this, k](char const* slot, std::uint32_t i) {
          k[i] = keyAt(slot);
          return writer_.bucketOf(k[i]);
        })) {
      return false;
    }
    return walkChains([k](std::uint32_t a, std::uint32_t b) { return k[a] < k[b]; },
                      [k](std::uint32_t i) { __builtin_prefetch(k + i); });
  }

 private:
  static Key const& keyAt(char const* slot) noexcept {
    return reinterpret_cast<Wrapper const*>(slot + SlotTable::valueOffset)->key;
  }

  QuarnWriter<Key, Wrapper>& writer_;
};

}  // namespace Quarn
