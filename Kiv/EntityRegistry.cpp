// The registry of live entities behind Entity::liveEntity: a set of addresses under one mutex
// (entities may be created and destroyed on several activity threads of a process).

#include <mutex>
#include <unordered_set>

#include "Kiv/Entity.h"

namespace Kiv {

namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_set<Entity const*> live;
};

// Never destroyed: entities with static storage may be destroyed after any other static.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

}  // namespace

void Entity::liveEntityAdd(Entity const* e) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.live.insert(e);
}

void Entity::liveEntityDel(Entity const* e) noexcept {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.live.erase(e);
}

Ptr<Entity> Entity::liveEntity(std::uintptr_t address) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.live.find(reinterpret_cast<Entity const*>(address));
  if (it == r.live.end()) return nullptr;
  Entity* e = const_cast<Entity*>(*it);
  if (e->references() == 0 && !e->isNondestructing()) return nullptr;
  return e;
}

}  // namespace Kiv
