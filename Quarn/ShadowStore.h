#pragma once
// The private store of a shadow copy: one shadow slot per slot index of the shared table, in
// private memory, chained into the store's own buckets so that lookups need neither the shared
// files nor retries.
//
// - `ShadowStore` keeps whole values (`ValueShadowSlot`), so it can tell an unchanged rewrite
//   from a change; `KeyShadowStore` keeps keys only (`KeyShadowSlot`) and reads values from the
//   shared table through the reader, so every rewrite of a present key counts as a change.
// - Shadow slot i mirrors shared slot i. Its two chain links are 32-bit slot indexes, not
//   addresses: a resize of the private memory may move it (mremap), and indexes stay valid
//   across a move, so `patch` only has to note the new base. A free shadow slot has
//   prev == freeLink; chains end in endLink and are kept in ascending key order, as the shared
//   table's are, so that iteration resumes after a removed key exactly like the reader's.
// - The bucket array has as many buckets as the shared table, so iteration order matches.
// - `doSlot(i)` re-reads shared slot i and turns the difference into at most one removal and
//   one insertion or change, each reported once to the notifier after the store is consistent
//   again: the notifier may look keys up, and a key store's lookup may itself bring a slot in
//   line (`adopt`), so nothing is reported half-way through a change.
// - The store grows only to the shared table's slot count and only for a notified slot beyond
//   it; once occupancy falls to a quarter it shrinks to the smallest power of two that covers
//   the highest occupied range of `SlotCounters`.
//
// Single-threaded: used on the owning activity's thread only.

#include <bit>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "Jorv/Platform.h"
#include "Quarn/Exceptions.h"
#include "Quarn/IterHint.h"
#include "Quarn/QuarnBase.h"
#include "Quarn/QuarnMem.h"
#include "Quarn/QuarnReader.h"

namespace Quarn {
namespace Shadow {

inline constexpr std::uint32_t endLink = 0xFFFFFFFFu;   // end of chain, empty bucket
inline constexpr std::uint32_t freeLink = 0xFFFFFFFEu;  // prev of a free shadow slot

// Occupied shadow slots per range of slot indexes. Ranges grow geometrically: range 0 holds
// [0, 2^rangeShift), range k >= 1 holds [2^(k-1+rangeShift), 2^(k+rangeShift)). The highest
// occupied range k alone then says that 2^(k+rangeShift) slots cover every occupied slot, and 32
// ranges cover every 32-bit index. Invariant: bit k of `nonZeroCounters_` is set iff range k's
// counter is not 0.
class SlotCounters {
 public:
  // The smallest store a shrink produces: 64 slots.
  static constexpr unsigned rangeShift = 6;

  static unsigned rangeOf(std::uint32_t i) noexcept {
    return i < (1u << rangeShift) ? 0 : unsigned(std::bit_width(i)) - rangeShift;
  }
  void inc(std::uint32_t i) noexcept;
  void dec(std::uint32_t i) noexcept;
  void clear() noexcept;
  std::uint32_t nonZeroCounters() const noexcept { return nonZeroCounters_; }
  // The smallest power-of-two slot count covering the highest occupied range (2^rangeShift when
  // nothing is occupied).
  std::uint64_t largestOccupied(Jorv::DebugHandler& dh) const;

 private:
  std::uint32_t counters_[32] = {};
  std::uint32_t nonZeroCounters_ = 0;
};

template <class Wrapper>
struct ValueShadowSlot {
  static constexpr char const* storeName = "ShadowStore";
  static constexpr bool keepsValue = true;

  std::uint32_t prev;
  std::uint32_t next;
  Wrapper value;

  auto const& key() const noexcept { return value.key; }
  void assign(Wrapper const& w) noexcept { value = w; }
  bool sameValue(Wrapper const& w) const noexcept {
    return std::memcmp(&value, &w, sizeof(Wrapper)) == 0;
  }
};

template <class Key>
struct KeyShadowSlot {
  static constexpr char const* storeName = "KeyShadowStore";
  static constexpr bool keepsValue = false;

  std::uint32_t prev;
  std::uint32_t next;
  Key storedKey;

  Key const& key() const noexcept { return storedKey; }
  template <class Wrapper>
  void assign(Wrapper const& w) noexcept {
    storedKey = w.key;
  }
  // Values are not kept: a rewrite of a present key may have changed it.
  template <class Wrapper>
  bool sameValue(Wrapper const&) const noexcept {
    return false;
  }
};

// What the shadow copy needs from either store.
template <class Key, class Wrapper>
class StoreIntf {
 public:
  virtual ~StoreIntf() = default;
  // Maps `numBuckets` buckets and `numSlots` free shadow slots. False with a trace.
  virtual bool initialize(std::uint32_t fenix, std::uint32_t numBuckets,
                          std::uint32_t numSlots) = 0;
  // Brings shadow slot `slotIndex` in line with shared slot `slotIndex`; `shrink`: then try to
  // shrink (a full pass shrinks once at its end instead). Raises CorruptionDetectedException
  // from the reader before the store is changed.
  virtual void doSlot(std::uint32_t slotIndex, bool resync, bool shrink) = 0;
  // As doSlot, but the keys it would report are appended to `reports` (the caller reports them
  // later) and it does not shrink.
  virtual void adopt(std::uint32_t slotIndex, std::vector<Key>& reports) = 0;
  // Shadow slot `slotIndex` holds `key`.
  virtual bool holds(std::uint32_t slotIndex, Key const& key) const noexcept = 0;
  virtual bool tryShrink() = 0;
  // Empties the store without notifications.
  virtual void flush() = 0;
  // Appends every key the store holds (no shared memory is read).
  virtual void keys(std::vector<Key>& out) const = 0;
  virtual Wrapper lookup(Key const& key, bool& found) = 0;
  virtual bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint) = 0;
  virtual bool next(Key const& key, Wrapper& out, IterHint& hint) = 0;
  virtual std::uint32_t numSlots() const noexcept = 0;
  virtual std::uint32_t occupied() const noexcept = 0;
  virtual void notifying(bool on) noexcept = 0;
};

template <class Key, class Wrapper, class Slot>
class BasicShadowStore final : public StoreIntf<Key, Wrapper> {
 public:
  BasicShadowStore(Jorv::DebugHandler& dh, QuarnReader<Key, Wrapper>& reader,
                   KeyNotifier<Key>& notifier)
      : dh_(dh),
        reader_(reader),
        notifier_(notifier),
        bucketsMem_(dh, "", "shadow-buckets", true),
        slotsMem_(dh, "", "shadow-slots", true) {}

  bool initialize(std::uint32_t fenix, std::uint32_t numBuckets, std::uint32_t numSlots) override;
  void doSlot(std::uint32_t slotIndex, bool resync, bool shrink) override;
  void adopt(std::uint32_t slotIndex, std::vector<Key>& reports) override;
  bool holds(std::uint32_t slotIndex, Key const& key) const noexcept override {
    return slotIndex < numSlots_ && slot(slotIndex).prev != freeLink &&
           equal(slot(slotIndex).key(), key);
  }
  // Stores shared value `w` into shadow slot `slotIndex` (which the shared table has occupied).
  void write(std::uint32_t slotIndex, Wrapper const& w, bool notify) {
    Changed changed;
    writeSlot(slotIndex, w, notify ? &changed : nullptr);
    send(changed);
  }
  // Frees shadow slot `slotIndex`, reporting its key when `notify`.
  void remove(std::uint32_t slotIndex, bool notify) {
    Changed changed;
    removeSlot(slotIndex, notify ? &changed : nullptr);
    send(changed);
  }
  bool grow(std::uint32_t slotIndex);
  bool tryShrink() override;
  bool shrink(std::uint32_t newNumSlots);
  void patch(char const* oldBase);
  void flush() override;
  void keys(std::vector<Key>& out) const override {
    for (std::uint32_t b = 0; b < numBuckets_; ++b) {
      for (std::uint32_t i = heads()[b]; i != endLink; i = slot(i).next) out.push_back(slot(i).key());
    }
  }
  Wrapper lookup(Key const& key, bool& found) override;
  bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint) override;
  bool next(Key const& key, Wrapper& out, IterHint& hint) override;
  std::uint32_t numSlots() const noexcept override { return numSlots_; }
  std::uint32_t occupied() const noexcept override { return occupied_; }
  void notifying(bool on) noexcept override { notify_ = on; }
  SlotCounters const& counters() const noexcept { return counters_; }

 private:
  static constexpr char const* name = Slot::storeName;

  // The keys one change of the store reports (a removal, then an insertion or change).
  struct Changed {
    Key keys[2];
    unsigned count = 0;
    void add(Key const& key) noexcept { keys[count++] = key; }
  };
  // The body of doSlot: brings slot `i` in line, recording what changed in `changed`.
  void sync(std::uint32_t i, bool resync, Changed& changed);
  // write and remove, recording what they report into `changed` when it is not null.
  void writeSlot(std::uint32_t i, Wrapper const& w, Changed* changed);
  void removeSlot(std::uint32_t i, Changed* changed);
  // Reports what changed, once the store is consistent again.
  void send(Changed const& changed) {
    for (unsigned k = 0; k < changed.count; ++k) report(changed.keys[k]);
  }

  Slot& slot(std::uint32_t i) const noexcept {
    return reinterpret_cast<Slot*>(slotsMem_.base())[i];
  }
  std::uint32_t* heads() const noexcept {
    return reinterpret_cast<std::uint32_t*>(bucketsMem_.base());
  }
  std::uint32_t bucketOf(Key const& key) const noexcept { return key.hash() % numBuckets_; }
  static bool equal(Key const& a, Key const& b) { return !(a < b) && !(b < a); }
  // The shared table's slot count as its header announces it now.
  std::uint32_t sharedNumSlots() const {
    return Mem::Atomics::highWord(reader_.slots().header()->numSlotsUnit());
  }
  // Copies shared slot `i`; true when it is occupied.
  bool readShared(std::uint32_t i, Wrapper& out);
  // The value to hand out for shadow slot `i`; false when a key store's key is gone meanwhile.
  bool valueOf(std::uint32_t i, Wrapper& out);
  // Links free shadow slot `i` holding `w` into its bucket chain in key order.
  void link(std::uint32_t i, Wrapper const& w);
  void unlink(std::uint32_t i) noexcept;
  // The shadow slot holding `key`, or endLink.
  std::uint32_t find(Key const& key) const;
  bool resizeSlots(std::uint32_t n, char const* op, std::uint32_t dueTo);
  void report(Key const& key) {
    if (notify_) notifier_.onKey(key);
  }

  Jorv::DebugHandler& dh_;
  QuarnReader<Key, Wrapper>& reader_;
  KeyNotifier<Key>& notifier_;
  QuarnMem bucketsMem_;
  QuarnMem slotsMem_;
  std::uint32_t numBuckets_ = 0;
  std::uint32_t numSlots_ = 0;
  std::uint32_t occupied_ = 0;
  // The shared slot count last mapped by the reader for this store (grow / initialize).
  std::uint32_t recordedShared_ = 0;
  bool notify_ = true;
  SlotCounters counters_;
};

template <class Key, class Wrapper>
using ShadowStore = BasicShadowStore<Key, Wrapper, ValueShadowSlot<Wrapper>>;
template <class Key, class Wrapper>
using KeyShadowStore = BasicShadowStore<Key, Wrapper, KeyShadowSlot<Key>>;

// ---- implementation

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::initialize(std::uint32_t fenix, std::uint32_t numBuckets,
                                                      std::uint32_t numSlots) {
  numSlots = std::max<std::uint32_t>(numSlots, 1);
  if (numBuckets == 0 || !bucketsMem_.attach(std::size_t(numBuckets) * sizeof(std::uint32_t)) ||
      !slotsMem_.attach(std::size_t(numSlots) * sizeof(Slot))) {
    if constexpr (Slot::keepsValue) {
      KIV_TRACE(dh_, 1,
                "ShadowStore::initialize() bucketsMem_.attachAs() Failed buckets:", numBuckets,
                " slots:", numSlots);
    } else {
      KIV_TRACE(dh_, 1, "KeyShadowStore::initialize() failed to map fenix: ", fenix,
                " buckets:", numBuckets, " slots:", numSlots);
    }
    bucketsMem_.detach();
    slotsMem_.detach();
    return false;
  }
  numBuckets_ = numBuckets;
  numSlots_ = numSlots;
  recordedShared_ = reader_.numSlots();
  std::fill_n(heads(), numBuckets_, endLink);
  for (std::uint32_t i = 0; i < numSlots_; ++i) slot(i).prev = freeLink;
  occupied_ = 0;
  counters_.clear();
  KIV_TRACE(dh_, 5, name, "::initialize() buckets:", numBuckets_, " slots:", numSlots_,
            " slotSize:", sizeof(Slot));
  return true;
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::readShared(std::uint32_t i, Wrapper& out) {
  SlotReader& slots = reader_.slots();
  if (i >= slots.numSlots() && !(slots.doResize() && i < slots.numSlots())) return false;
  return slots.readValue(slots.slot(i), &out, sizeof out) & SlotTable::OCCUPIED;
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::doSlot(std::uint32_t i, bool resync, bool shrink) {
  Changed changed;
  sync(i, resync, changed);
  if (shrink) tryShrink();
  send(changed);
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::adopt(std::uint32_t i, std::vector<Key>& reports) {
  Changed changed;
  sync(i, false, changed);
  reports.insert(reports.end(), changed.keys, changed.keys + changed.count);
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::sync(std::uint32_t i, bool resync, Changed& changed) {
  if (i >= numSlots_) {
    std::uint32_t const shared = sharedNumSlots();
    if (i >= shared && shared < recordedShared_) {
      KIV_TRACE(dh_, 3,
                "ShadowStore::doSlot() skip growing of shadow table to accomodate slotIndex:", i,
                " because shared memory has shrunk to ", shared, " slots");
      return;
    }
    // A slot freed again before its notification arrived needs no room: growing for it would
    // only be undone by the next shrink.
    Wrapper peek;
    if (i < shared && !readShared(i, peek)) {
      KIV_TRACE(dh_, 8, "ShadowStore::doSlot() free slotIndex:", i,
                " beyond shadow slots:", numSlots_);
      return;
    }
    if (!grow(i)) {
      KIV_TRACE(dh_, 3, "ShadowStore::doSlot() discarding notification for slotIndex:", i);
      return;
    }
  }
  Wrapper w;
  bool const found = readShared(i, w);
  reader_.checkIntact();  // before the store changes on what may be zeros
  Slot const& s = slot(i);
  bool const held = s.prev != freeLink;
  KIV_TRACE(dh_, 9, "ShadowStore::doSlot() updated: ", KeyText<Key>{w.key},
            " compare: ", held ? KeyText<Key>{s.key()} : KeyText<Key>{w.key}, held ? "" : " (free)",
            " slotIndex:", i, " resync:", resync, found ? " found" : " not found");
  if (found) {
    writeSlot(i, w, &changed);
  } else if (held) {
    removeSlot(i, &changed);
  }
}

template <class Key, class Wrapper, class Slot>
std::uint32_t BasicShadowStore<Key, Wrapper, Slot>::find(Key const& key) const {
  for (std::uint32_t i = heads()[bucketOf(key)]; i != endLink; i = slot(i).next) {
    if (equal(slot(i).key(), key)) return i;
    if (key < slot(i).key()) break;
  }
  return endLink;
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::link(std::uint32_t i, Wrapper const& w) {
  std::uint32_t const b = bucketOf(w.key);
  std::uint32_t prev = endLink;
  std::uint32_t cur = heads()[b];
  while (cur != endLink && slot(cur).key() < w.key) {
    prev = cur;
    cur = slot(cur).next;
  }
  Slot& s = slot(i);
  s.assign(w);
  s.prev = prev;
  s.next = cur;
  if (cur != endLink) slot(cur).prev = i;
  if (prev == endLink) {
    heads()[b] = i;
  } else {
    slot(prev).next = i;
  }
  ++occupied_;
  counters_.inc(i);
  if (prev == endLink && cur == endLink) {
    KIV_TRACE(dh_, 8, name, "::write() value inserted in fresh bucket ", b, " slot:", i);
  } else if (cur == endLink) {
    KIV_TRACE(dh_, 8, name, "::write() add slot to end of chain ", b, " slot:", i);
  } else {
    KIV_TRACE(dh_, 8, name, "::write() value inserted bucket:", b, " slot:", i);
  }
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::unlink(std::uint32_t i) noexcept {
  Slot& s = slot(i);
  if (s.next != endLink) slot(s.next).prev = s.prev;
  if (s.prev == endLink) {
    heads()[bucketOf(s.key())] = s.next;
  } else {
    slot(s.prev).next = s.next;
  }
  s.prev = freeLink;
  s.next = endLink;
  --occupied_;
  counters_.dec(i);
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::writeSlot(std::uint32_t i, Wrapper const& w,
                                                     Changed* changed) {
  Slot& s = slot(i);
  if (s.prev != freeLink) {
    if (equal(s.key(), w.key)) {
      if (s.sameValue(w)) {
        KIV_TRACE(dh_, 9, name, "::write() no update needed slot:", i);
        return;
      }
      s.assign(w);
      KIV_TRACE(dh_, 8, name, "::write() value updated slot:", i);
      if (changed != nullptr) changed->add(w.key);
      return;
    }
    removeSlot(i, changed);  // the writer reused the slot for another key
  }
  // The key may still sit in another shadow slot: the shared table moved it (removed, then
  // inserted elsewhere) and this pass or queue walk has not yet visited its old slot.
  bool differs = true;  // false: the same value only moved to this slot
  if (std::uint32_t const j = find(w.key); j != endLink) {
    differs = !slot(j).sameValue(w);
    KIV_TRACE(dh_, 8, name, "::write() key moved from slot:", j, " to slot:", i);
    unlink(j);
  }
  link(i, w);
  if (changed != nullptr && differs) changed->add(w.key);
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::removeSlot(std::uint32_t i, Changed* changed) {
  Slot const& s = slot(i);
  if (s.prev == freeLink) {
    KIV_TRACE(dh_, 8, name, "::remove() dead slot ", i);
    return;
  }
  KIV_TRACE(dh_, 8, name, "::remove() slot:", i, " prev->next:", s.prev, " next:", s.next,
            " occupied:", occupied_);
  Key const key = s.key();
  unlink(i);
  if (changed != nullptr) changed->add(key);
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::grow(std::uint32_t i) {
  KIV_TRACE(dh_, 5, "ShadowStore::grow() for slotIndex:", i);
  SlotReader& slots = reader_.slots();
  std::uint32_t const before = slots.numSlots();
  if (!slots.doResize()) {
    KIV_TRACE(dh_, 1, "ShadowStore::grow() cannot remap QuarnReader for slotIndex:", i);
    return false;
  }
  std::uint32_t const after = slots.numSlots();
  KIV_TRACE(dh_, 5, "ShadowStore::grow() resized QuarnReader to ", after, " from ", before);
  if (after < before) KIV_TRACE(dh_, 1, "ShadowStore::grow() mapped memory unexpectedly shrank");
  recordedShared_ = after;
  if (i < after) {
    if (!resizeSlots(after, "grow", i)) return false;
    KIV_TRACE(dh_, 5, "ShadowStore::grow() complete.");
    return true;
  }
  KIV_TRACE(dh_, 3, "ShadowStore::grow() complete. Never learned of slotIndex:", i,
            " so it is safe to ignore.");
  return false;
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::resizeSlots(std::uint32_t n, char const* op,
                                                       std::uint32_t dueTo) {
  if (std::string_view(op) == "grow") {
    KIV_TRACE(dh_, 5, "ShadowStore::grow() resize shadow slots from ", numSlots_, " to ", n,
              " due to out of range slot ", dueTo);
  } else {
    KIV_TRACE(dh_, 5, "ShadowStore::shrink() resize shadow slots from ", numSlots_, " to ", n);
  }
  std::size_t const bytes = std::size_t(n) * sizeof(Slot);
  char const* const oldBase = slotsMem_.base();
  KIV_TRACE(dh_, 8, "QuarnMem::resizeAs() resizing to ", bytes);
  bool const ok = slotsMem_.resize(bytes);
  KIV_TRACE(dh_, 5, "ShadowStore::", op, "() Passed resize ", bytes, " and got ",
            ok ? slotsMem_.mappedSize() : 0, " back.");
  if (!ok) return false;  // the old mapping stands unchanged
  for (std::uint32_t j = numSlots_; j < n; ++j) {
    slot(j).prev = freeLink;
    slot(j).next = endLink;
  }
  numSlots_ = n;
  if (slotsMem_.base() != oldBase) patch(oldBase);
  return true;
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::tryShrink() {
  if (occupied_ > numSlots_ / 4) return false;
  std::uint64_t const n = counters_.largestOccupied(dh_);
  if (n >= numSlots_) return false;
  KIV_TRACE(dh_, 5, "ShadowStore::tryShrink() shadow slot occupancy <= 25% and ", "can shrink to ",
            n, " slots.");
  std::uint32_t const shared = sharedNumSlots();
  if (shared > recordedShared_ && shared > n) {
    KIV_TRACE(dh_, 5, "ShadowStore::tryShrink() skip shrinking of shadow table to ", n,
              " slots because shared memory has grown to ", shared, " slots");
    return false;
  }
  if (shared < recordedShared_) {
    KIV_TRACE(dh_, 3, "Writer shrank the slot table! Enable third shadow slot shrink condition");
  }
  return shrink(std::uint32_t(n));
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::shrink(std::uint32_t n) {
  KIV_TRACE(dh_, 5, "ShadowStore::shrink() newNumSlots:", n);
  if (!resizeSlots(n, "shrink", n)) return false;
  KIV_TRACE(dh_, 5, "ShadowStore::shrink() complete.");
  return true;
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::patch(char const* oldBase) {
  // Chains hold slot indexes, which a move leaves valid: only the offset is worth telling.
  auto const moved = std::intptr_t(reinterpret_cast<std::uintptr_t>(slotsMem_.base())) -
                     std::intptr_t(reinterpret_cast<std::uintptr_t>(oldBase));
  KIV_TRACE(dh_, 5, "ShadowStore::patch() address offset is ", moved / std::intptr_t(sizeof(Slot)),
            " slots; chains hold indexes, nothing to move");
  if (!dh_.enabled(9)) return;
  for (std::uint32_t b = 0; b < numBuckets_; ++b) {
    if (heads()[b] != endLink)
      KIV_TRACE(dh_, 9, "ShadowStore::patch() Patching slots in bucket ", b);
  }
}

template <class Key, class Wrapper, class Slot>
void BasicShadowStore<Key, Wrapper, Slot>::flush() {
  if (slotsMem_.base() == nullptr) return;
  for (std::uint32_t i = 0; i < numSlots_; ++i) {
    if (slot(i).prev == freeLink) continue;
    KIV_TRACE(dh_, 9, name, "::flush() slotIndex ", i);
    slot(i).prev = freeLink;
    slot(i).next = endLink;
  }
  std::fill_n(heads(), numBuckets_, endLink);
  occupied_ = 0;
  counters_.clear();
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::valueOf(std::uint32_t i, Wrapper& out) {
  if constexpr (Slot::keepsValue) {
    out = slot(i).value;
    return true;
  } else {
    bool found = false;
    out = reader_.doLookup(slot(i).key(), found);
    return found;
  }
}

template <class Key, class Wrapper, class Slot>
Wrapper BasicShadowStore<Key, Wrapper, Slot>::lookup(Key const& key, bool& found) {
  Wrapper out{};
  found = false;
  if (numBuckets_ == 0) return out;
  std::uint32_t const i = find(key);
  if (i != endLink) found = valueOf(i, out);
  if (!found) out = Wrapper{};
  return out;
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::first(std::uint32_t bucket, Wrapper& out,
                                                 IterHint& hint) {
  for (std::uint32_t b = bucket; b < numBuckets_; ++b) {
    for (std::uint32_t i = heads()[b]; i != endLink; i = slot(i).next) {
      if (valueOf(i, out)) {
        hint = {i, b};
        return true;
      }
    }
  }
  return false;
}

template <class Key, class Wrapper, class Slot>
bool BasicShadowStore<Key, Wrapper, Slot>::next(Key const& key, Wrapper& out, IterHint& hint) {
  if (numBuckets_ == 0) return false;
  std::uint32_t const b = bucketOf(key);
  for (std::uint32_t i = heads()[b]; i != endLink; i = slot(i).next) {
    if (key < slot(i).key() && valueOf(i, out)) {
      hint = {i, b};
      return true;
    }
  }
  return first(b + 1, out, hint);
}

}  // namespace Shadow
}  // namespace Quarn
