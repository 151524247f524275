#pragma once
// State machines and their reactors: the operations every state machine shares, written once.
//
// Reactor<N, Owner>: a notifiee (N is an entity's Notifiee or NotifieeConst class, or
// Clock::Notifiee) that acts for its owner, a state machine or another reactor, reached through a
// raw back pointer (`owner()`). The back pointer is set by the reactor's constructor and cleared
// by whoever holds the reactor when it lets go of it, so it is never left dangling. A reactor is
// alive (`kivAlive()`) while it has an owner, is not a zombie and is not being destroyed; every
// handler begins with `if (!kivAlive()) return;`.
//   hasNotificationActiveIs(bool): stops or resumes delivery (the reactor keeps its notifier);
//   kivDoZombieReactors(bool):     stops or resumes reacting.
// Both also pass down to the reactors the reactor itself holds.
//
// ReactorHost: anything that holds reactors (StateMachine, and a Reactor with reactors of its
// own). Holders are members of the host (ReactorPtr: one reactor; ReactorColl: keyed reactors)
// and register with it on construction, so that the host passes hasNotificationActiveIs and
// kivDoZombieReactors down to every nested reactor without naming them. A holder remembers the
// last hasNotificationActiveIs and applies it to reactors it takes later.
//
// Letting go of a reactor ("detaching") makes it a zombie first and then clears its back pointer.
// ReactorColl runs its delete hook between the two when a member is removed (xDel, xDelAll), so
// that the reactor undoes its work (`handleDelete`); it does not run it when a member is replaced
// (newX) or when the collection itself goes with its host: a state machine that is destroyed leaves
// in place what its reactors built.
//
// Re-entrancy. Handlers run inside notifications, and whatever they call may notify in turn; any
// of those handlers may drop the last reference to the state machine. Therefore:
//   - every holder operation keeps its host alive for its duration (liveRef: no reference is
//     taken while the host is under construction, when nobody else can reach it);
//   - a handler that goes on using its owner after a call that may notify holds
//     `liveRef(owner())` across it; one that makes such a call last needs nothing;
//   - a removed reactor is a zombie before its delete hook runs, so its own notifications during
//     handleDelete are not acted upon, and its nested holders are left alone while it undoes them.
//
// Everything runs on the thread of the activity the state machine runs on (`kivFwkActivity`).

#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kiv/Activity.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"

namespace Kiv {

// A reference to `p` when it already has one (it is neither under construction nor being
// destroyed), else null: what code that may run inside a constructor uses to keep an object alive.
template <class T>
Ptr<T> liveRef(T* p) noexcept {
  return p != nullptr && p->references() > 0 ? Ptr<T>(p) : Ptr<T>();
}

// Throws NullArgumentException "null <parameter> parameter to mutator for <attribute> not allowed""
// (the closing double quote is part of the text): what a setter that takes a reactor or an entity
// raises for a null one. `attribute` is the full name, e.g. "Ns::Type::group".
[[noreturn]] void throwNullArgument(std::string_view parameter, std::string_view attribute);

// What a host passes its two operations down to: a reactor holder, or a reactor.
class ReactorNode {
 public:
  virtual void hasNotificationActiveIs(bool active) = 0;
  virtual void kivDoZombieReactors(bool zombie) = 0;

 protected:
  ReactorNode() = default;
  ReactorNode(ReactorNode const&) = delete;
  ReactorNode& operator=(ReactorNode const&) = delete;
  ~ReactorNode() = default;
};

class ReactorHost {
 public:
  ReactorHost() = default;
  ReactorHost(ReactorHost const&) = delete;
  ReactorHost& operator=(ReactorHost const&) = delete;

  // Holders register on construction and leave on destruction.
  void nestedAdd(ReactorNode* node) { nested_.push_back(node); }
  void nestedDel(ReactorNode* node) noexcept;

 protected:
  ~ReactorHost() = default;
  void nestedHasNotificationActiveIs(bool active);
  void nestedDoZombieReactors(bool zombie);

 private:
  std::vector<ReactorNode*> nested_;
};

namespace Detail {
// Reactors are held by Ptr; a notifiee class that is not reference counted gets a count here.
template <class N>
struct CountedNotifiee : N, PtrInterface {
  using N::N;
};
template <class N>
using ReactorNotifiee =
    std::conditional_t<std::is_base_of_v<PtrInterface, N>, N, CountedNotifiee<N>>;
}  // namespace Detail

template <class N, class Owner>
class Reactor : public Detail::ReactorNotifiee<N>, public ReactorNode, public ReactorHost {
 public:
  Owner* owner() const noexcept { return owner_; }
  // Set by the constructor; cleared (nullptr) by the holder that lets go of this reactor.
  void ownerIs(Owner* owner) noexcept { owner_ = owner; }
  bool kivZombie() const noexcept { return zombie_; }
  bool kivAlive() const noexcept { return owner_ != nullptr && !zombie_ && !this->isDestroying(); }

  void hasNotificationActiveIs(bool active) override {
    this->isRegisteredNotifieeIs(active);
    nestedHasNotificationActiveIs(active);
  }
  // A reactor that was let go (no owner) stays a zombie, and so does everything it holds: their
  // back pointers may name a state machine that is gone.
  void kivDoZombieReactors(bool zombie) override {
    zombie_ = zombie || owner_ == nullptr;
    nestedDoZombieReactors(zombie_);
  }

 protected:
  explicit Reactor(Owner* owner) noexcept : owner_(owner) {}

 private:
  Owner* owner_;
  bool zombie_ = false;
};

// Makes `r` a zombie and clears its back pointer: what a holder does when it lets go.
template <class R>
void reactorDetach(R& r) noexcept {
  r.kivDoZombieReactors(true);
  r.ownerIs(nullptr);
}

// One nested reactor (or none), a member of its host.
template <class R>
class ReactorPtr final : public ReactorNode {
 public:
  explicit ReactorPtr(ReactorHost& host) : host_(host) { host.nestedAdd(this); }
  ~ReactorPtr() {
    if (reactor_) reactorDetach(*reactor_);
    host_.nestedDel(this);
  }

  Ptr<R> const& reactor() const noexcept { return reactor_; }
  // Takes `r` (null: none) and detaches the previous reactor, which goes when its last
  // reference does.
  void reactorIs(Ptr<R> r) {
    if (r == reactor_) return;
    if (r && !active_) r->hasNotificationActiveIs(false);
    Ptr<R> old = std::exchange(reactor_, std::move(r));
    if (old) reactorDetach(*old);
  }

  void hasNotificationActiveIs(bool active) override {
    active_ = active;
    if (reactor_) reactor_->hasNotificationActiveIs(active);
  }
  void kivDoZombieReactors(bool zombie) override {
    if (reactor_) reactor_->kivDoZombieReactors(zombie);
  }

 private:
  ReactorHost& host_;
  Ptr<R> reactor_;
  bool active_ = true;
};

// Keyed nested reactors, a member of their host, in map order of KeyHash (as Kiv::Collection).
// Host is the holding class (a StateMachine or a Reactor); its hooks:
//   DeleteHook (the host's kiv_handleX): runs on a member removed by xDel or xDelAll, after the
//     member became a zombie and before its back pointer is cleared; it calls the member's
//     handleDelete. An exception from it passes on; the member is still removed and detached.
//   NotifyHook (optional, the host's xNotify): tells the host's notifiees that the member under
//     a key was added or removed.
// Iterators stay valid across the insertion and removal of other members.
template <class Host, class Key, class R, class KeyHash = BitReversedHash<Key>>
class ReactorColl final : public MemberMap<Key, R, KeyHash>, public ReactorNode {
  using Base = MemberMap<Key, R, KeyHash>;
  using Base::map_;
  using Base::slotOf;

 public:
  using typename Base::Iterator;
  using DeleteHook = void (Host::*)(R&);
  using NotifyHook = void (Host::*)(Key const&) const;

  ReactorColl(Host& host, DeleteHook onDelete, NotifyHook onChange = nullptr)
      : host_(host), onDelete_(onDelete), onChange_(onChange) {
    static_cast<ReactorHost&>(host).nestedAdd(this);
  }
  // Detaches every member without running the delete hook.
  ~ReactorColl() {
    for (auto& [slot, member] : map_) reactorDetach(*member);
    static_cast<ReactorHost&>(host_).nestedDel(this);
  }

  // The member under `key`, else one made by `make()` (returning Ptr<R>), inserted and notified.
  template <class Make>
  Ptr<R> memberIs(Key const& key, Make&& make) {
    if (auto existing = this->member(key)) return existing;
    return insertMade(key, make);
  }
  // The member under `key` when it watches `notifier`; otherwise the member there (which watches
  // an entity since replaced) is removed as by memberDel, and one made by `make()` is inserted.
  template <class Notifier, class Make>
  Ptr<R> memberIs(Key const& key, Notifier const& notifier, Make&& make) {
    if (auto existing = this->member(key)) {
      if (existing->notifier() == notifier) return existing;
      memberDel(key);
    }
    return insertMade(key, make);
  }
  // Full resynchronisation with the entities of a collection: `add(entity)` for each of
  // `entities` (a snapshot of Ptrs), then memberDel of every key for which `holds(key)` is false.
  // Stops as soon as `alive()` is false (a handler let go of the reactor that asked for it).
  template <class Entities, class Add, class Holds, class Alive>
  void memberSync(Entities const& entities, Add&& add, Holds&& holds, Alive&& alive) {
    for (auto const& entity : entities) {
      if (!alive()) return;
      add(entity);
    }
    std::vector<Key> stale;
    for (auto const& [slot, member] : map_) {
      if (!holds(slot.key)) stale.push_back(slot.key);
    }
    for (Key const& key : stale) {
      if (!alive()) return;
      memberDel(key);
    }
  }
  // Makes a member with `make()` and inserts it, detaching (not deleting) one already under `key`.
  template <class Make>
  Ptr<R> newMember(Key const& key, Make&& make) {
    auto const keep = liveRef(&host_);
    Ptr<R> created = make();
    Ptr<R> replaced = this->member(key);
    if (replaced) map_.erase(slotOf(key));
    insert(key, created);
    if (replaced) reactorDetach(*replaced);
    notify(key);
    return created;
  }
  void memberDel(Key const& key) {
    auto const keep = liveRef(&host_);
    auto it = map_.find(slotOf(key));
    if (it != map_.end()) erase(it);
  }
  void memberDel(Iterator it) {
    auto const keep = liveRef(&host_);
    if (it != this->end()) erase(it.mapIterator());
  }
  // Removes every member in map order, each as by memberDel.
  void memberDelAll() {
    auto const keep = liveRef(&host_);
    while (!map_.empty()) erase(map_.begin());
  }
  void memberNotify(Key const& key) const {
    if (onChange_ != nullptr) (host_.*onChange_)(key);
  }

  void hasNotificationActiveIs(bool active) override {
    active_ = active;
    for (auto& [slot, member] : map_) member->hasNotificationActiveIs(active);
  }
  void kivDoZombieReactors(bool zombie) override {
    for (auto& [slot, member] : map_) member->kivDoZombieReactors(zombie);
  }

 private:
  // Inserts and notifies a member made by `make()` for an absent `key`, unless the constructor's
  // work (which may notify) had a handler insert one meanwhile: that one stays and is returned.
  template <class Make>
  Ptr<R> insertMade(Key const& key, Make&& make) {
    auto const keep = liveRef(&host_);
    Ptr<R> created = make();
    Ptr<R> member = insert(key, created);
    if (member != created) {
      reactorDetach(*created);
      return member;
    }
    notify(key);
    return created;
  }
  // Inserts `created` unless a member is under `key`; returns the member under `key` after.
  Ptr<R> insert(Key const& key, Ptr<R> const& created) {
    auto [it, inserted] = map_.try_emplace(slotOf(key), created);
    if (inserted && !active_) created->hasNotificationActiveIs(false);
    return it->second;
  }
  void notify(Key const& key) const { memberNotify(key); }
  void erase(typename Base::Map::iterator it) {
    Key const key = it->first.key;
    Ptr<R> removed = std::move(it->second);
    map_.erase(it);
    removed->kivDoZombieReactors(true);
    try {
      (host_.*onDelete_)(*removed);
    } catch (...) {
      removed->ownerIs(nullptr);
      throw;
    }
    removed->ownerIs(nullptr);
    notify(key);
  }

  Host& host_;
  DeleteHook const onDelete_;
  NotifyHook const onChange_;
  bool active_ = true;
};

// The base of every state machine: an entity (attributes, notifiees, reference count) that holds
// reactors. The two operations pass down to every nested reactor. A derived destructor that wants
// every reactor deaf before any of them is released begins with kivDoZombieReactors(true); the
// holders detach their reactors anyway as they go.
class StateMachine : public Entity, public ReactorHost {
 public:
  void hasNotificationActiveIs(bool active) { nestedHasNotificationActiveIs(active); }
  void kivDoZombieReactors(bool zombie) { nestedDoZombieReactors(zombie); }

  // The activity whose thread runs this state machine's reactors.
  Activity& kivFwkActivity() const { return activity_ ? *activity_ : Activity::current(); }

 protected:
  explicit StateMachine(Name name, Activity* activity = nullptr)
      : Entity(std::move(name)), activity_(activity) {}
  ~StateMachine() override = default;

 private:
  Activity* const activity_;
};

}  // namespace Kiv
