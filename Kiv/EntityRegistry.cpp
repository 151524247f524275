// The registry of live entities behind Entity::liveEntity: a set of addresses under one mutex
// (entities may be created and destroyed on several activity threads of a process).
//
// Every entity creation and destruction passes here, so the set is built for that: 256
// open-addressing tables (linear probing, erase by backward shift, so no tombstones), one chosen
// by the top bits of the mixed address. Insert and erase allocate nothing except when a table
// doubles, and a doubling re-inserts only that table's share of the live entities: no single
// creation pays for re-hashing all of them (with a million live entities that would stall the
// creating thread for tens of milliseconds). A table's load stays at most one half.
//
// Insertions are batched: an address waits among the `pending` ones (a short array, read in
// order) until kBatch have come, then they go in together, each one's home cell prefetched first,
// so that the cache misses of a burst of creations overlap instead of following one another (a
// restart creating half a million entities spent a quarter of its time waiting on them one by
// one). Lookups and erasures look at the pending addresses first: an address is either pending
// or in its table, never both, since only a live entity's address is ever added.

#include <cstdint>
#include <mutex>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Hash.h"

namespace Kiv {

namespace {

constexpr unsigned kShardBits = 8;
constexpr std::size_t kMinCapacity = 16;
constexpr std::size_t kBatch = 16;

std::uint64_t mixed(std::uintptr_t address) noexcept {
  return mix64(address);
}

// One open-addressing table of addresses (0 marks a free cell); capacity is a power of two.
class Shard {
 public:
  bool contains(std::uintptr_t a) const noexcept { return !cells_.empty() && cells_[at(a)] == a; }
  // Starts loading the cell where the probe for `a` begins.
  void prefetch(std::uintptr_t a) const noexcept {
    if (!cells_.empty()) __builtin_prefetch(&cells_[mixed(a) & (cells_.size() - 1)], 1);
  }
  void insert(std::uintptr_t a) {
    if ((used_ + 1) * 2 > cells_.size()) grow();
    std::size_t const i = at(a);
    if (cells_[i] == a) return;
    cells_[i] = a;
    ++used_;
  }
  void erase(std::uintptr_t a) noexcept {
    if (cells_.empty()) return;
    std::size_t i = at(a);
    if (cells_[i] != a) return;
    // Backward shift: move up every later entry of the probe run whose home lies at or before
    // the hole (cyclically), so that every entry stays reachable from its home without gaps.
    std::size_t const mask = cells_.size() - 1;
    for (std::size_t j = (i + 1) & mask; cells_[j] != 0; j = (j + 1) & mask) {
      std::size_t const home = mixed(cells_[j]) & mask;
      bool const movable = i <= j ? (home <= i || home > j) : (home <= i && home > j);
      if (movable) {
        cells_[i] = cells_[j];
        i = j;
      }
    }
    cells_[i] = 0;
    --used_;
  }

 private:
  // The cell holding `a`, or the free cell where it would go.
  std::size_t at(std::uintptr_t a) const noexcept {
    std::size_t const mask = cells_.size() - 1;
    std::size_t i = mixed(a) & mask;
    while (cells_[i] != 0 && cells_[i] != a) i = (i + 1) & mask;
    return i;
  }
  void grow() {
    std::vector<std::uintptr_t> old(cells_.empty() ? kMinCapacity : 2 * cells_.size(), 0);
    old.swap(cells_);
    for (std::uintptr_t a : old) {
      if (a != 0) cells_[at(a)] = a;
    }
  }

  std::vector<std::uintptr_t> cells_;
  std::size_t used_ = 0;
};

struct Registry {
  std::mutex mutex;
  Shard shards[std::size_t{1} << kShardBits];
  std::uintptr_t pending[kBatch] = {};
  std::size_t pendingCount = 0;

  Shard& of(std::uintptr_t a) noexcept { return shards[mixed(a) >> (64 - kShardBits)]; }
  // A full batch goes in before `a` joins the next: should a table's growth throw, `a` was never
  // added (its entity is not constructed) and what is not in its table yet stays pending.
  void add(std::uintptr_t a) {
    if (pendingCount == kBatch) {
      for (std::uintptr_t p : pending) of(p).prefetch(p);
      for (; pendingCount > 0; --pendingCount) {
        std::uintptr_t const p = pending[pendingCount - 1];
        of(p).insert(p);
      }
    }
    pending[pendingCount++] = a;
  }
  // Removes `a` from the pending addresses; false when it is not among them.
  bool pendingErase(std::uintptr_t a) noexcept {
    for (std::size_t i = 0; i < pendingCount; ++i) {
      if (pending[i] == a) {
        pending[i] = pending[--pendingCount];
        return true;
      }
    }
    return false;
  }
  bool contains(std::uintptr_t a) const noexcept {
    for (std::size_t i = 0; i < pendingCount; ++i) {
      if (pending[i] == a) return true;
    }
    return shards[mixed(a) >> (64 - kShardBits)].contains(a);
  }
};

// Never destroyed: entities with static storage may be destroyed after any other static.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

std::uintptr_t addressOf(Entity const* e) noexcept {
  return reinterpret_cast<std::uintptr_t>(e);
}

}  // namespace

void Entity::liveEntityAdd(Entity const* e) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.add(addressOf(e));
}

void Entity::liveEntityDel(Entity const* e) noexcept {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (!r.pendingErase(addressOf(e))) r.of(addressOf(e)).erase(addressOf(e));
}

Ptr<Entity> Entity::liveEntity(std::uintptr_t address) {
  if (address == 0) return nullptr;
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (!r.contains(address)) return nullptr;
  // Registered, hence a live entity at exactly that address: only now is the number followed.
  Entity* e = reinterpret_cast<Entity*>(address);
  if (e->references() == 0 && !e->isNondestructing()) return nullptr;
  return e;
}

}  // namespace Kiv
