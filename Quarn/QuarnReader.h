#pragma once
// A lock-free reader of a table that another process writes.
//
// `BucketReader` and `SlotReader` map the "buckets" and "slots" files read-only;
// `QuarnReader<Key, Wrapper>` answers lookups and ordered iteration over them, and follows the
// writer's growth by remapping the slot file.
//
// Consistency rests on the writer's orders (Quarn/QuarnWriter.h) and nothing else:
// - A link (bucket head or slot next, with its version: one 64-bit unit) is loaded with acquire;
//   whoever sees a link sees the slot it names fully written. A link is still valid later if its
//   unit is unchanged (the version grows with every store).
// - A value is copied seqlock style: flags (acquire), copy (from the lookaside slot while
//   LOOKASIDE is set), acquire fence, flags again; equal flags mean a consistent copy.
// - Every conclusion drawn from a slot (found, not found, next hop) is re-checked against the link
//   that led to it; a changed link restarts the walk from the bucket head. Contradictions that
//   persist under an unchanged link raise CorruptionDetectedException.
// - A slot index beyond the mapped slots means the writer grew the file (it publishes numSlots
//   before it links a new slot): remap and restart.
//
// Not thread-safe: one reader object is used by one thread (it remaps).

#include <cstdint>
#include <sstream>
#include <string>

#include "Jorv/Platform.h"
#include "Mem/Shared.h"
#include "Quarn/BucketTable.h"
#include "Quarn/Exceptions.h"
#include "Quarn/IterHint.h"
#include "Quarn/QuarnWriter.h"
#include "Quarn/SlotTable.h"
#include "Quarn/ValueSeq.h"

namespace Quarn {

class BucketReader {
 public:
  BucketReader(Jorv::DebugHandler& dh, std::string const& rootPath);

  // Maps the whole file. False with a message when it is missing or cannot be mapped.
  bool attach(std::string& error);
  // Header checks against the mapping; also fixes the number of buckets.
  bool validate(std::uint32_t fenix, std::string& error);
  void detach() noexcept { mem_.detach(); }
  bool attached() const noexcept { return mem_.attached(); }
  bool damaged() const noexcept { return mem_.damaged(); }

  std::uint32_t numBuckets() const noexcept { return numBuckets_; }
  // The link unit of bucket `b`; raises CorruptionDetectedException beyond the last bucket.
  char const* bucket(std::uint32_t b) const {
    if (b >= numBuckets_) [[unlikely]] outOfRange(b);
    return BucketTable::bucket(mem_.base(), b);
  }

 private:
  [[noreturn]] void outOfRange(std::uint32_t b) const;

  Jorv::DebugHandler& dh_;
  Mem::Shared mem_;
  std::uint32_t numBuckets_ = 0;
};

class SlotReader {
 public:
  SlotReader(Jorv::DebugHandler& dh, std::string const& rootPath);

  bool attach(std::string& error);
  // Header checks against the mapping; also fixes the number of slots mapped.
  bool validate(std::uint32_t fenix, std::string& error);
  // Remaps to the slot count the header announces now. False when the file cannot be mapped
  // that far; raises CorruptionDetectedException when the header fails its checks.
  bool doResize();
  void detach() noexcept;
  bool attached() const noexcept { return mem_.attached(); }
  bool damaged() const noexcept { return mem_.damaged(); }

  std::uint32_t numSlots() const noexcept { return numSlots_; }
  std::uint32_t slotSize() const noexcept { return slotSize_; }
  std::uint32_t valueSize() const noexcept { return valueSize_; }
  std::uint32_t fenix() const noexcept { return fenix_; }
  // The value type name the header records (the writer's record type); only while attached.
  std::string valueTypeName() const;
  std::uint64_t lookasideReads() const noexcept { return lookasideReads_; }
  // The mapped header (occupancy and configured size); only while attached.
  SlotTable::Header const* header() const noexcept { return SlotTable::header(mem_.base()); }
  // Range-checked slot address ("SlotReader::Slots::operator[] out-of-range index:").
  char const* slot(std::uint32_t i) const {
    if (i >= numSlots_) [[unlikely]] outOfRange(i);
    return slotUnchecked(i);
  }
  // The same for an index the caller has checked against numSlots().
  char const* slotUnchecked(std::uint32_t i) const noexcept {
    return SlotTable::slot(mem_.base(), slotSize_, i);
  }

  // Copies the value of slot `s` consistently into `out`; returns the flags it was copied under.
  std::uint32_t readValue(char const* s, void* out, std::size_t bytes) {
    std::uint32_t f = ValueSeq::readValueBegin(s);
    do {
      char const* from = s;
      if (f & SlotTable::LOOKASIDE) [[unlikely]] {
        from = SlotTable::lookaside(mem_.base());
        ++lookasideReads_;
      }
      Mem::Atomics::copyFromShared(out, from + SlotTable::valueOffset, bytes);
    } while (ValueSeq::readValueRetry(s, f));
    return f;
  }

 private:
  [[noreturn]] void outOfRange(std::uint32_t i) const;

  Jorv::DebugHandler& dh_;
  Mem::Shared mem_;
  std::uint32_t numSlots_ = 0;
  std::uint32_t slotSize_ = 0;
  std::uint32_t valueSize_ = 0;
  std::uint32_t fenix_ = 0;
  std::uint64_t lookasideReads_ = 0;
};

template <class Key, class Wrapper>
class QuarnReader {
 public:
  using KeyType = Key;
  using ValueType = Wrapper;

  // `rootPath` is the table's directory (Quarn::RootPath::str()).
  QuarnReader(Jorv::DebugHandler& dh, std::string rootPath)
      : dh_(dh), rootPath_(std::move(rootPath)), buckets_(dh, rootPath_), slots_(dh, rootPath_) {}

  // Maps and validates both files; `fenix` 0 accepts any incarnation. False with a message.
  bool initialize(std::uint32_t fenix, std::string& error);
  void detach();
  bool attached() const noexcept { return slots_.attached() && buckets_.attached(); }

  // The value of `key`; with `slotIndex`, also the slot it was found in.
  Wrapper doLookup(Key const& key, bool& found, std::uint32_t* slotIndex = nullptr);
  // The first entry in bucket order from `bucket` on.
  bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint);
  // The entry after `key` in iteration order (`key` may have been removed meanwhile).
  bool doNext(Key const& key, Wrapper& out, IterHint& hint);

  // Raises CorruptionDetectedException when a file was truncated under its mapping: what was
  // read from it since may be zeros (Mem/Shared.h). Every read operation ends with it. While the
  // process's fault count has not moved since the last check, no mapping can have been damaged:
  // the check is then one relaxed load.
  bool damaged() const noexcept { return buckets_.damaged() || slots_.damaged(); }
  void checkIntact() {
    if (Mem::damageCount() != damageSeen_) [[unlikely]] recheckIntact();
  }

  std::uint32_t fenix() const noexcept { return slots_.fenix(); }
  std::uint32_t numSlots() const noexcept { return slots_.numSlots(); }
  std::uint32_t numBuckets() const noexcept { return buckets_.numBuckets(); }
  SlotReader& slots() noexcept { return slots_; }
  std::string const& rootPath() const noexcept { return rootPath_; }

 private:
  // Which slot of a chain a walk looks for.
  enum class Want { equal, greater, head };
  // The operation a walk serves, named in its corruption reports.
  struct Texts {
    char const* cycle;    // prefix of the cycle message
    char const* corrupt;  // prefix of the wrong-bucket message
  };
  static constexpr Texts lookupTexts{"QuarnReader::doLookup() hash chain cycle detected, ",
                                     "QuarnReader::doLookup() corrupt key detected, key:"};
  static constexpr Texts firstTexts{"QuarnReader::first() hash chain cycle detected, ",
                                    "QuarnReader::first() corrupt key detected, key:"};
  static constexpr Texts nextTexts{"QuarnReader::doNext() hash chain cycle detected, ",
                                   "QuarnReader::doNext() corrupt key detected key:"};
  // Walks bucket `b`'s chain for `want` relative to `key`; true with the slot's value in `out`
  // and its index in `slot`.
  bool walk(std::uint32_t b, Key const* key, Want want, Wrapper& out, std::uint32_t& slot,
            Texts const& texts);
  std::uint32_t bucketOf(Key const& key) const noexcept { return key.hash() % numBuckets(); }
  // The reports of a walk, out of line: the walk is every lookup's hot path.
  [[noreturn, gnu::cold, gnu::noinline]] void chainCycle(Texts const& texts,
                                                         std::uint32_t steps) const;
  [[noreturn, gnu::cold, gnu::noinline]] void notOccupied(std::uint32_t slot,
                                                          Key const& found) const;
  [[noreturn, gnu::cold, gnu::noinline]] void wrongBucket(Texts const& texts, Key const& found,
                                                          std::uint32_t slot,
                                                          std::uint32_t b) const;
  // checkIntact after the fault count moved: raises when a mapping of this reader is damaged,
  // else remembers the count (the faults were in other mappings).
  [[gnu::cold, gnu::noinline]] void recheckIntact();
  // The table front reports corruption once per incident at error level; a reader may meet the
  // same damage on every lookup and retry.
  [[noreturn]] void corruption(std::string const& text) const {
    KIV_TRACE(dh_, 1, text);
    throw CorruptionDetectedException(text);
  }

  Jorv::DebugHandler& dh_;
  std::string rootPath_;
  BucketReader buckets_;
  SlotReader slots_;
  std::uint64_t damageSeen_ = Mem::damageCount();
};

// ---- implementation

template <class Key, class Wrapper>
bool QuarnReader<Key, Wrapper>::initialize(std::uint32_t fenix, std::string& error) {
  std::string why;
  if (!buckets_.attach(why)) {
    error = "QuarnReader::initialize() buckets.attach() failed " + why;
  } else if (!slots_.attach(why)) {
    error = "QuarnReader::initialize() slots attach() failed " + why;
  } else if (!buckets_.validate(fenix, why)) {
    error = "QuarnReader::initialize() buckets.validate() failed " + why;
  } else if (!slots_.validate(fenix, why)) {
    error = "QuarnReader::initialize() slots validate() failed " + why;
  } else if (slots_.valueSize() != sizeof(Wrapper) ||
             slots_.slotSize() < SlotTable::valueOffset + sizeof(Wrapper)) {
    error = "QuarnReader::initialize() slots validate() failed valueSize:" +
            std::to_string(slots_.valueSize()) + " slotSize:" + std::to_string(slots_.slotSize()) +
            " wanted valueSize:" + std::to_string(sizeof(Wrapper));
  } else if (std::string const stored = slots_.valueTypeName(), wanted = Jorv::typeName<Wrapper>();
             stored != wanted.substr(0, SlotTable::nameSize - 1)) {
    // Of the same size but another record: its fields would be read as this one's.
    error = "QuarnReader::initialize() slots validate() failed value typename:" + stored +
            " wanted:" + wanted;
  } else {
    KIV_TRACE(dh_, 3, "QuarnReader::initialize() success ", rootPath_, " slots:", numSlots(),
              " buckets:", numBuckets(), " fenix:", slots_.fenix());
    return true;
  }
  KIV_TRACE(dh_, 1, error);
  detach();
  return false;
}

template <class Key, class Wrapper>
void QuarnReader<Key, Wrapper>::detach() {
  if (!attached()) KIV_TRACE(dh_, 5, "QuarnReader::detach() already detached");
  buckets_.detach();
  slots_.detach();
}

template <class Key, class Wrapper>
bool QuarnReader<Key, Wrapper>::walk(std::uint32_t b, Key const* key, Want want, Wrapper& out,
                                     std::uint32_t& slot, Texts const& texts) {
  for (;;) {  // one iteration per (re)start from the bucket head
    char const* unit = buckets_.bucket(b);
    std::uint64_t link = Mem::Atomics::load64Acquire(unit);
    for (std::uint32_t steps = 1;; ++steps) {
      std::uint32_t const i = Mem::Atomics::highWord(link);
      if (i == noIndex) return false;
      if (steps > slots_.numSlots()) [[unlikely]] chainCycle(texts, steps);
      if (i >= slots_.numSlots()) {
        if (slots_.doResize() && i < slots_.numSlots()) break;  // grown: start again
        if (Mem::Atomics::load64Acquire(unit) != link) break;
        slots_.slot(i);  // raises the out-of-range corruption
      }
      char const* s = slots_.slotUnchecked(i);  // i < numSlots: checked above
      std::uint32_t const flags = slots_.readValue(s, &out, sizeof(Wrapper));
      bool const linkSame = Mem::Atomics::load64Acquire(unit) == link;
      if (!(flags & SlotTable::OCCUPIED)) [[unlikely]] {
        if (!linkSame) break;
        notOccupied(i, out.key);
      }
      bool const sameKey = key != nullptr && out.key == *key;
      // A slot holding the sought key is in the right chain by construction (b is that key's
      // bucket whenever a key is given), which spares the hash on every hit.
      if (!sameKey && bucketOf(out.key) != b) [[unlikely]] {
        if (!linkSame) break;
        wrongBucket(texts, out.key, i, b);
      }
      if (!linkSame) break;
      bool const hit = want == Want::head || (want == Want::equal ? sameKey
                                                                  : !sameKey && *key < out.key);
      if (hit) {
        slot = i;
        return true;
      }
      if (want == Want::equal && *key < out.key) return false;  // chains ascend by key
      unit = s;
      link = Mem::Atomics::load64Acquire(unit);
      // A slot removed after its value was read joins the free list, and its next link then
      // leads into that list under a version of its own, which later checks would accept. The
      // writer changes the slot's flags before it relinks it: flags unchanged after the link was
      // read (acquire) mean the slot was still in the chain when its link was taken.
      if (Mem::Atomics::load32Acquire(s + offsetof(SlotTable::Slot, flags)) != flags) break;
    }
    KIV_TRACE(dh_, 8, "QuarnReader::walk() restart bucket:", b);
  }
}

template <class Key, class Wrapper>
void QuarnReader<Key, Wrapper>::chainCycle(Texts const& texts, std::uint32_t steps) const {
  std::ostringstream os;
  os << texts.cycle << "slotCount:" << steps << " capacity:" << slots_.numSlots();
  corruption(os.str());
}

template <class Key, class Wrapper>
void QuarnReader<Key, Wrapper>::notOccupied(std::uint32_t slot, Key const& found) const {
  std::ostringstream os;
  os << "QuarnReader::doLookup() slot:" << slot
     << " not marked as occupied key:" << KeyText<Key>{found};
  corruption(os.str());
}

template <class Key, class Wrapper>
void QuarnReader<Key, Wrapper>::wrongBucket(Texts const& texts, Key const& found,
                                            std::uint32_t slot, std::uint32_t b) const {
  std::ostringstream os;
  os << texts.corrupt << KeyText<Key>{found} << " slot:" << slot << " bucket:" << b;
  corruption(os.str());
}

template <class Key, class Wrapper>
void QuarnReader<Key, Wrapper>::recheckIntact() {
  std::uint64_t const count = Mem::damageCount();
  if (damaged()) {
    corruption("QuarnReader::checkIntact() " + rootPath_ + " truncated under its mapping");
  }
  damageSeen_ = count;
}

// The result starts as a copy of a default record made once (constructing one in place would
// store every field of it on every lookup) and a hit overwrites it with the slot's value.
template <class Key, class Wrapper>
Wrapper QuarnReader<Key, Wrapper>::doLookup(Key const& key, bool& found,
                                            std::uint32_t* slotIndex) {
  static Wrapper const absent{};
  Wrapper out = absent;
  found = false;
  if (!buckets_.attached()) [[unlikely]] {
    KIV_TRACE(dh_, 5, "QuarnReader::doLookup() bucket table detached");
  } else {
    std::uint32_t slot = noIndex;
    found = walk(bucketOf(key), &key, Want::equal, out, slot, lookupTexts);
    checkIntact();
    if (found && slotIndex != nullptr) *slotIndex = slot;
  }
  if (!found) out = absent;
  return out;
}

template <class Key, class Wrapper>
bool QuarnReader<Key, Wrapper>::first(std::uint32_t bucket, Wrapper& out, IterHint& hint) {
  if (!buckets_.attached()) return false;
  for (std::uint32_t b = bucket; b < numBuckets(); ++b) {
    std::uint32_t slot;
    bool const hit = walk(b, nullptr, Want::head, out, slot, firstTexts);
    checkIntact();
    if (hit) {
      hint = {slot, b};
      return true;
    }
  }
  KIV_TRACE(dh_, 8, "QuarnReader::first() none found!");
  return false;
}

template <class Key, class Wrapper>
bool QuarnReader<Key, Wrapper>::doNext(Key const& key, Wrapper& out, IterHint& hint) {
  if (!buckets_.attached()) return false;
  // The hint is not needed: searching the key's own chain for the first greater key is right
  // whether or not the key is still there, and chains are short.
  // A copy: callers pass the key of `out` itself (`doNext(v.key, v, hint)`), which the walk
  // overwrites with every slot it reads.
  Key const after = key;
  std::uint32_t const b = bucketOf(after);
  std::uint32_t slot;
  bool const hit = walk(b, &after, Want::greater, out, slot, nextTexts);
  checkIntact();
  if (hit) {
    hint = {slot, b};
    return true;
  }
  return first(b + 1, out, hint);
}

}  // namespace Quarn
