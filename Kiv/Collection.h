#pragma once
// Kiv::Collection: an entity's keyed collection of owned members, written once for every
// collection attribute (an entity's `group(key)`, `groupIs`, `newGroup`, `groupDel`,
// `groupDelAll`, `groupNotify` and iterators are each one call into it).
//
// Members are held by reference (Ptr) and ordered by (KeyHash(key), key): "map order", which is
// deterministic and independent of insertion order. Each entity chooses its member key hash (for
// example the bit-reversed address hash). The storage (Kiv/OrderedHashMap.h) finds a key through
// the top bits of that hash, so a KeyHash should spread its values over the high bits, as the
// bit-reversed hashes do; lookups cost one directory entry and a short run of the member list.
//
// Invariants: a member is in the collection exactly when its parent link names the owner with
// this collection's attribute identifier. Insert sets the link; erase clears it before the owner's
// notifiees hear of the removal, so a watcher that looks at the removed member sees no parent.
// Removing an absent key changes nothing and notifies nothing. Iterators stay valid across the
// insertion and removal of other members.
//
// Re-entrancy: every operation that notifies holds a reference to the owner for its whole
// duration (Entity::keepAlive), because a handler (the owner's, or a member's hearing onParent)
// may drop the owner's last reference while the caller holds the owner by plain pointer only. The
// owner then goes when the operation returns, never while the collection is still in use.

#include <cstdint>
#include <iterator>
#include <utility>

#include "Kiv/Entity.h"
#include "Kiv/OrderedHashMap.h"

namespace Kiv {

// A begin/end pair, so that an entity can hand out its members for a range-for in one line.
template <class It>
struct IteratorRange {
  It first;
  It last;
  It begin() const { return first; }
  It end() const { return last; }
};

// The ordered storage of keyed members, written once for entity collections (below) and reactor
// collections (Kiv/Reactor.h): members held by Ptr in map order, lookup and iteration. What
// inserting and removing means (parent links, notifications, delete hooks) is the holder's.
template <class Key, class Member, class KeyHash>
class MemberMap {
 protected:
  struct Slot {
    std::uint32_t hash;
    Key key;
    bool operator<(Slot const& o) const {
      if (hash != o.hash) return hash < o.hash;
      return key < o.key;
    }
  };
  using Map = OrderedHashMap<Slot, Ptr<Member>>;

  template <class MapIterator, class M>
  class IteratorBase {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = M;
    using difference_type = std::ptrdiff_t;
    using pointer = M*;
    using reference = M&;

    IteratorBase() = default;
    explicit IteratorBase(MapIterator it) : it_(it) {}
    template <class OtherIt, class OtherM>
    IteratorBase(IteratorBase<OtherIt, OtherM> const& o) : it_(o.mapIterator()) {}

    M& operator*() const { return *it_->second; }
    M* operator->() const { return it_->second.ptr(); }
    Ptr<M> ptr() const { return it_->second.ptr(); }
    Key const& key() const { return it_->first.key; }
    IteratorBase& operator++() {
      ++it_;
      return *this;
    }
    IteratorBase operator++(int) {
      auto old = *this;
      ++it_;
      return old;
    }
    bool operator==(IteratorBase const& o) const { return it_ == o.it_; }
    MapIterator mapIterator() const { return it_; }

   private:
    MapIterator it_{};
  };

 public:
  using KeyType = Key;
  using MemberType = Member;
  using Iterator = IteratorBase<typename Map::iterator, Member>;
  using IteratorConst = IteratorBase<typename Map::const_iterator, Member const>;

  MemberMap() = default;
  MemberMap(MemberMap const&) = delete;
  MemberMap& operator=(MemberMap const&) = delete;

  std::size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }
  Ptr<Member> member(Key const& key) const {
    auto it = map_.find(slotOf(key));
    return it == map_.end() ? Ptr<Member>() : it->second;
  }

  Iterator begin() { return Iterator(map_.begin()); }
  Iterator end() { return Iterator(map_.end()); }
  IteratorConst begin() const { return IteratorConst(map_.begin()); }
  IteratorConst end() const { return IteratorConst(map_.end()); }
  IteratorRange<Iterator> range() { return {begin(), end()}; }
  IteratorRange<IteratorConst> range() const { return {begin(), end()}; }
  Iterator find(Key const& key) { return Iterator(map_.find(slotOf(key))); }
  IteratorConst find(Key const& key) const { return IteratorConst(map_.find(slotOf(key))); }
  // The first member at or after `key` in map order (`key` itself need not be present): where a
  // walk interrupted at `key` resumes.
  Iterator lowerBound(Key const& key) { return Iterator(map_.lower_bound(slotOf(key))); }

 protected:
  ~MemberMap() = default;
  static Slot slotOf(Key const& key) { return Slot{KeyHash()(key), key}; }

  Map map_;
};

// Member:   the member entity type, constructible from `Key const&`.
// OnMember: the owner's notifiee operation for a keyed change, e.g.
// &Status::NotifieeConst::onGroup.
template <class Key, class Member, class KeyHash, class OnMember>
class Collection : public MemberMap<Key, Member, KeyHash> {
  using Base = MemberMap<Key, Member, KeyHash>;
  using Base::map_;
  using Base::slotOf;
  using typename Base::Map;

 public:
  using Base::begin;
  using Base::end;
  using Base::find;
  using Base::member;
  using Base::range;
  using typename Base::Iterator;
  using typename Base::IteratorConst;

  Collection(Entity& owner, AttributeId id, OnMember onMember)
      : owner_(owner), id_(id), onMember_(onMember) {}
  Collection(Collection const&) = delete;
  Collection& operator=(Collection const&) = delete;
  // Members still present are detached (their watchers hear onParent); the owner is going away.
  ~Collection() {
    for (auto& [slot, member] : map_) member->parentIs(nullptr, 0);
  }

  AttributeId attributeId() const noexcept { return id_; }

  // The member under `key`, created (and notified) when absent.
  Ptr<Member> memberIs(Key const& key) {
    if (auto existing = member(key)) return existing;
    auto const keep = owner_.keepAlive();
    auto created = newMember(key);
    owner_.notify(id_, onMember_, key);
    return created;
  }

  // Constructs a member from `key` and inserts it. A member already under `key` is detached and
  // replaced, and that replacement is notified; a plain insertion is not (memberIs notifies it).
  Ptr<Member> newMember(Key const& key) {
    auto const keep = owner_.keepAlive();
    Ptr<Member> created = newPtr<Member>(key);
    auto [it, inserted] = map_.try_emplace(slotOf(key), created);
    Ptr<Member> replaced;
    if (!inserted) replaced = std::exchange(it->second, created);
    created->parentIs(&owner_, id_);
    if (replaced) {
      replaced->parentIs(nullptr, 0);
      owner_.notify(id_, onMember_, key);
    }
    return created;
  }

  void memberDel(Key const& key) {
    auto const keep = owner_.keepAlive();
    auto it = map_.find(slotOf(key));
    if (it != map_.end()) erase(it);
  }
  void memberDel(Iterator it) {
    auto const keep = owner_.keepAlive();
    if (it != end()) erase(it.mapIterator());
  }
  // Removes every member in map order, each as by memberDel. Re-reads the first member each time,
  // so handlers that add or remove members meanwhile are tolerated.
  void memberDelAll() {
    auto const keep = owner_.keepAlive();
    while (!map_.empty()) erase(map_.begin());
  }
  void memberNotify(Key const& key) const {
    auto const keep = owner_.keepAlive();
    owner_.notify(id_, onMember_, key);
  }
  // As memberDel, returning the removed member (null when `key` was absent).
  Ptr<Member> memberRemove(Key const& key) {
    Ptr<Member> removed = member(key);
    if (removed) memberDel(key);
    return removed;
  }
  // As memberDel of the member under `it`, which first moves on to the next member (so a walk
  // can remove as it goes); returns the removed member.
  Ptr<Member> memberRemove(Iterator& it) {
    if (it == end()) return {};
    Iterator const victim = it++;
    Ptr<Member> removed = victim.ptr();
    memberDel(victim);
    return removed;
  }

 private:
  void erase(typename Map::iterator it) {
    Key const key = it->first.key;
    Ptr<Member> removed = std::move(it->second);
    map_.erase(it);
    removed->parentIs(nullptr, 0);
    owner_.notify(id_, onMember_, key);
  }

  Entity& owner_;
  AttributeId const id_;
  OnMember const onMember_;
};

}  // namespace Kiv
