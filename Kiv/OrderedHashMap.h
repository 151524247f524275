#pragma once
// Kiv::OrderedHashMap: the storage behind MemberMap (Kiv/Collection.h). It keeps the members in
// "map order", ascending (slot.hash, slot.key) as a std::map<Slot, Value> would, but finds a key
// in a few cache lines instead of a tree descent of one cold node per level.
//
// Layout: the entries form one doubly-linked list in map order, closed by a sentinel (end()).
// A directory of 2^bits entries holds, for each value of the top `bits` bits of the hash, the
// first entry of that run of the list (null when none). Since the list is ordered by hash first,
// each run is contiguous, so a lookup reads one directory entry and walks only its run.
//
// Invariants:
//   - the list is strictly ascending in (hash, key); size_ counts its entries;
//   - dir_ is never empty while the list is not, and then dir_.size() == 2^bits_; it is halved
//     or doubled when size_ leaves [dir_.size() / 4, dir_.size()] (a doubling that cannot be
//     allocated leaves it fuller: slower, still exact);
//   - dir_[b] is the first entry whose hash has top bits b, or null when there is none.
// Entries never move: an iterator stays valid until its own entry is erased, across insertions
// and erasures of others and directory rebuilds.
//
// Cost: O(1) expected per find, insert and erase when the top bits of the hashes are spread
// evenly (the bit-reversed hashes of MemberMap are: their top bits are the key hash's low bits).
// Hashes that share their top bits still work, in time linear in the length of their run.
// Not thread safe; not copyable (entries point at the sentinel member).

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

namespace Kiv {

// Slot: a key with a 32-bit member `hash`, strictly ordered by operator< with hash compared first.
template <class Slot, class Value>
class OrderedHashMap {
  struct Link {
    Link* prev;
    Link* next;
  };
  struct Node : Link {
    template <class V>
    Node(Slot const& slot, V&& v) : Link{nullptr, nullptr}, value(slot, std::forward<V>(v)) {}
    std::pair<Slot const, Value> value;
  };

  template <class V>
  class Iter {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::pair<Slot const, Value>;
    using difference_type = std::ptrdiff_t;
    using pointer = V*;
    using reference = V&;

    Iter() = default;
    explicit Iter(Link const* link) : link_(const_cast<Link*>(link)) {}
    template <class W>
    Iter(Iter<W> const& o) : link_(o.link()) {}

    V& operator*() const { return static_cast<Node*>(link_)->value; }
    V* operator->() const { return &static_cast<Node*>(link_)->value; }
    Iter& operator++() {
      link_ = link_->next;
      return *this;
    }
    Iter operator++(int) {
      Iter old = *this;
      link_ = link_->next;
      return old;
    }
    template <class W>
    bool operator==(Iter<W> const& o) const {
      return link_ == o.link();
    }
    Link* link() const { return link_; }

   private:
    Link* link_ = nullptr;
  };

 public:
  using value_type = std::pair<Slot const, Value>;
  using iterator = Iter<value_type>;
  using const_iterator = Iter<value_type const>;

  OrderedHashMap() = default;
  OrderedHashMap(OrderedHashMap const&) = delete;
  OrderedHashMap& operator=(OrderedHashMap const&) = delete;
  ~OrderedHashMap() {
    for (Link* l = head_.next; l != &head_;) {
      Link* const next = l->next;
      delete static_cast<Node*>(l);
      l = next;
    }
  }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }

  iterator begin() { return iterator(head_.next); }
  iterator end() { return iterator(&head_); }
  const_iterator begin() const { return const_iterator(head_.next); }
  const_iterator end() const { return const_iterator(&head_); }

  iterator find(Slot const& slot) { return iterator(findLink(slot)); }
  const_iterator find(Slot const& slot) const { return const_iterator(findLink(slot)); }
  // The first entry not below `slot`.
  iterator lower_bound(Slot const& slot) { return iterator(lowerBound(slot)); }
  const_iterator lower_bound(Slot const& slot) const { return const_iterator(lowerBound(slot)); }

  // Inserts (slot, value) unless `slot` is present; returns the entry and whether it is new.
  // Allocation failures throw before anything changed; a directory that cannot grow stays as it
  // is (fuller runs, the same answers).
  template <class V>
  std::pair<iterator, bool> try_emplace(Slot const& slot, V&& value) {
    if (dir_.empty()) dir_.assign(1, nullptr);  // bits_ is 0 for a one-entry directory
    Link* const pos = lowerBound(slot);
    if (pos != &head_ && !(slot < slotOf(pos))) return {iterator(pos), false};
    Node* const n = new Node(slot, std::forward<V>(value));
    n->prev = pos->prev;
    n->next = pos;
    pos->prev->next = n;
    pos->prev = n;
    Link*& first = dir_[bucketOf(slot.hash)];
    if (first == nullptr || first == pos) first = n;
    ++size_;
    if (size_ > dir_.size()) resize(2 * dir_.size());
    return {iterator(n), true};
  }
  template <class V>
  std::pair<iterator, bool> emplace(Slot const& slot, V&& value) {
    return try_emplace(slot, std::forward<V>(value));
  }

  // The entry is unlinked and the bookkeeping done before its value is destroyed, so a value
  // whose destruction reaches back into this map finds it consistent.
  void erase(iterator it) {
    Link* const l = it.link();
    std::size_t const b = bucketOf(slotOf(l).hash);
    if (dir_[b] == l) {
      Link* const next = l->next;
      dir_[b] = next != &head_ && bucketOf(slotOf(next).hash) == b ? next : nullptr;
    }
    l->prev->next = l->next;
    l->next->prev = l->prev;
    --size_;
    if (size_ == 0) {
      dir_ = {};
      bits_ = 0;
    } else if (size_ * 4 < dir_.size()) {
      resize(dir_.size() / 2);
    }
    delete static_cast<Node*>(l);
  }
  std::size_t erase(Slot const& slot) {
    Link* const l = findLink(slot);
    if (l == &head_) return 0;
    erase(iterator(l));
    return 1;
  }

 private:
  static Slot const& slotOf(Link const* l) { return static_cast<Node const*>(l)->value.first; }
  std::size_t bucketOf(std::uint32_t hash) const noexcept {
    return static_cast<std::size_t>((static_cast<std::uint64_t>(hash) << bits_) >> 32);
  }

  Link* lowerBound(Slot const& slot) const {
    Link* const sentinel = const_cast<Link*>(&head_);
    if (dir_.empty()) return sentinel;
    std::size_t const b = bucketOf(slot.hash);
    Link* l = dir_[b];
    if (l == nullptr) {
      // The run of `b` is empty: the answer is the first entry of a later run.
      for (std::size_t c = b + 1; c < dir_.size(); ++c) {
        if (dir_[c] != nullptr) return dir_[c];
      }
      return sentinel;
    }
    // Past the end of the run of `b`, entries belong to higher hashes: the walk stops there.
    while (l != sentinel && slotOf(l) < slot) l = l->next;
    return l;
  }
  Link* findLink(Slot const& slot) const {
    Link* const l = lowerBound(slot);
    return l != &head_ && !(slot < slotOf(l)) ? l : const_cast<Link*>(&head_);
  }

  // Replaces the directory by one of `entries` (a power of two), filled in one walk of the list;
  // keeps the old one, complete and valid, when the new one cannot be allocated.
  void resize(std::size_t entries) noexcept {
    try {
      std::vector<Link*> dir(entries, nullptr);
      unsigned bits = 0;
      while ((std::size_t{1} << bits) < entries) ++bits;
      for (Link* l = head_.next; l != &head_; l = l->next) {
        std::uint32_t const hash = slotOf(l).hash;
        Link*& first = dir[static_cast<std::size_t>((std::uint64_t{hash} << bits) >> 32)];
        if (first == nullptr) first = l;
      }
      dir_.swap(dir);
      bits_ = bits;
    } catch (std::bad_alloc const&) {
    }
  }

  Link head_{&head_, &head_};
  std::vector<Link*> dir_;
  unsigned bits_ = 0;
  std::size_t size_ = 0;
};

}  // namespace Kiv
