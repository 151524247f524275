// The entity framework: the notification walk, setter and counter helpers, the keyed collection,
// parent links, attribute names and the reference-counted lifecycle. Uses a small test entity
// (a Node with a value, a counter and a collection of child Nodes keyed by number).

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Kiv/OrderedHashMap.h"

namespace {

struct NumberKeyHash {
  // Deliberately coarse (key / 10), so that several keys share a hash and the tie is broken by key.
  std::uint32_t operator()(int key) const {
    return Kiv::bitReverse(static_cast<std::uint32_t>(key / 10));
  }
};

class Node : public Kiv::Entity {
 public:
  struct Attr {
    enum : Kiv::AttributeId { number = Kiv::kFirstTypeAttributeId, value, counter, child };
  };
  class NotifieeConst : public Kiv::NotifieeConstOf<Node, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onValue() {}
    virtual void onCounter() {}
    virtual void onChild(int const&) {}
  };
  using Notifiee = Kiv::NotifieeOf<Node, NotifieeConst>;
  using ChildColl = Kiv::Collection<int, Node, NumberKeyHash, void (NotifieeConst::*)(int const&)>;

  explicit Node(int number) : number_(number) { ++live; }
  ~Node() override {
    children_.memberDelAll();
    --live;
  }
  static inline int live = 0;

  int number() const { return number_; }
  int value() const { return value_; }
  void valueIs(int v) { attributeIs(value_, v, Attr::value, &NotifieeConst::onValue); }
  std::uint8_t counter() const { return counter_; }
  void counterInc(std::uint8_t inc) {
    Entity::counterInc(counter_, inc, Attr::counter, &NotifieeConst::onCounter);
  }
  ChildColl& children() { return children_; }
  Kiv::AttributeTable const& attributeTable() const override;

 private:
  int const number_;
  int value_ = 0;
  std::uint8_t counter_ = 0;
  ChildColl children_{*this, Attr::child, &NotifieeConst::onChild};
};

constexpr Kiv::AttributeDecl kNodeAttributes[] = {
    {"number", Node::Attr::number, "I32", Kiv::AttributeKind::key},
    {"value", Node::Attr::value, "I32", Kiv::AttributeKind::settable},
    {"counter", Node::Attr::counter, "U8", Kiv::AttributeKind::counter},
    {"child", Node::Attr::child, "Node", Kiv::AttributeKind::collection},
};
constexpr Kiv::AttributeTable kNodeTable{"Node", kNodeAttributes, &Kiv::kEntityAttributeTable};
Kiv::AttributeTable const& Node::attributeTable() const {
  return kNodeTable;
}

// A notifiee whose reactions are set per test; it logs what it hears as "<tag>:<event>".
class Watcher : public Node::Notifiee {
 public:
  Watcher(std::vector<std::string>& log, std::string tag) : log_(log), tag_(std::move(tag)) {}
  std::function<void()> onValueAction;
  std::function<void()> onChildAction;
  std::function<void()> onParentAction;
  std::function<void()> onIsNondestructingAction;
  std::vector<Kiv::AttributeId> exceptions;

  void onValue() override { hear("value", onValueAction); }
  void onCounter() override { hear("counter", nullptr); }
  void onChild(int const& key) override { hear("child" + std::to_string(key), onChildAction); }
  void onParent() override { hear("parent", onParentAction); }
  void onIsNondestructing() override { hear("isNondestructing", onIsNondestructingAction); }
  void onNotificationException(Kiv::AttributeId id) override { exceptions.push_back(id); }

 private:
  void hear(std::string const& event, std::function<void()> const& action) {
    log_.push_back(tag_ + ":" + event);
    if (action) action();
  }
  std::vector<std::string>& log_;
  std::string tag_;
};

struct WalkTest : ::testing::Test {
  std::vector<std::string> log;
  Kiv::Ptr<Node> node = new Node(1);
  Kiv::Ptr<Watcher> watch(std::string tag, Kiv::Ptr<Node> const& on) {
    Kiv::Ptr<Watcher> w = new Watcher(log, std::move(tag));
    w->notifierIs(on);
    return w;
  }
};

// Notifiees leaving during the walk are skipped and the rest still hear; one joining hears only
// the next notification.
TEST_F(WalkTest, NotifieesLeavingOrJoiningDuringTheWalk) {
  auto a = watch("a", node), b = watch("b", node), c = watch("c", node);
  Kiv::Ptr<Watcher> late;
  a->onValueAction = [&] {
    a->isRegisteredNotifieeIs(false);  // itself
    c->notifierIs(nullptr);            // one not yet called
    late = watch("late", node);
  };
  node->valueIs(5);
  EXPECT_EQ(log, (std::vector<std::string>{"a:value", "b:value"}));
  log.clear();
  node->valueIs(6);
  EXPECT_EQ(log, (std::vector<std::string>{"b:value", "late:value"}));
  a->onValueAction = nullptr;
  a->isRegisteredNotifieeIs(true);  // switched back on, it hears again
  log.clear();
  node->valueIs(7);
  EXPECT_EQ(log.size(), 3u);
  EXPECT_EQ(node->notifieeCount(), 3u);
}

TEST_F(WalkTest, ThrowingHandlerIsReportedWithTheAttributeAndTheWalkGoesOn) {
  auto a = watch("a", node), b = watch("b", node);
  a->onValueAction = [] { throw std::runtime_error("boom"); };
  b->onValueAction = [&] {
    // A handler that throws a non-standard object from onNotificationException is contained too.
    throw 42;
  };
  node->valueIs(3);
  EXPECT_EQ(log, (std::vector<std::string>{"a:value", "b:value"}));
  EXPECT_EQ(a->exceptions, std::vector<Kiv::AttributeId>{Node::Attr::value});
  EXPECT_EQ(b->exceptions, std::vector<Kiv::AttributeId>{Node::Attr::value});
  EXPECT_EQ(node->value(), 3);
}

TEST_F(WalkTest, HandlerMayDropTheLastReferenceToTheNotifier) {
  auto a = watch("a", node), b = watch("b", node);
  Node* raw = node.ptr();
  node = nullptr;  // only the watchers keep it now
  a->onValueAction = [&] {
    a->notifierIs(nullptr);
    b->notifierIs(nullptr);  // last reference gone while the walk still runs
  };
  raw->valueIs(9);  // AddressSanitizer catches a use after free here
  EXPECT_EQ(log, (std::vector<std::string>{"a:value"}));
}

TEST_F(WalkTest, PlainMemberNotifieeDestroyedByAnEarlierHandlerIsSkipped) {
  // Notifiees held as plain members (never by Ptr) are not referenced by the walk; destroying one
  // mid-walk must unregister it so that the walk does not call into freed memory.
  struct Owner {
    explicit Owner(std::vector<std::string>& log) : watcher(log, "member") {}
    Watcher watcher;
  };
  auto first = watch("first", node);
  auto owner = std::make_unique<Owner>(log);
  owner->watcher.notifierIs(node);
  first->onValueAction = [&] { owner.reset(); };
  node->valueIs(1);
  EXPECT_EQ(log, (std::vector<std::string>{"first:value"}));
  EXPECT_EQ(node->notifieeCount(), 1u);
  first->onValueAction = nullptr;
  Owner kept(log);
  kept.watcher.notifierIs(node);
  node->valueIs(2);  // a plain member survives being walked (it is never released by the walk)
  EXPECT_EQ(log.back(), "member:value");
}

TEST_F(WalkTest, ManyNotifieesAllHearBeyondTheInlineSnapshot) {
  std::vector<Kiv::Ptr<Watcher>> watchers;
  for (std::size_t i = 0; i < 3 * Kiv::Entity::kInlineNotifiees; ++i) {
    watchers.push_back(watch("w", node));
  }
  watchers[0]->onValueAction = [&] { watchers.back()->isRegisteredNotifieeIs(false); };
  node->valueIs(1);
  EXPECT_EQ(log.size(), watchers.size() - 1);
  watchers.clear();  // destroying notifiees unregisters them
  EXPECT_EQ(node->notifieeCount(), 0u);
}

TEST_F(WalkTest, CollectionKeepsMapOrderParentLinksAndAnnouncesReplacements) {
  auto a = watch("a", node);
  for (int k : {31, 5, 12, 3, 19}) node->children().memberIs(k);
  std::vector<int> order;
  for (auto& child : node->children().range()) order.push_back(child.number());
  // Map order: by (hash, key), not by key: bitReverse(key / 10) is 0 for 3 and 5, 0x80000000 for
  // 12 and 19, 0xc0000000 for 31; insertion order plays no part.
  EXPECT_EQ(order, (std::vector<int>{3, 5, 12, 19, 31}));
  log.clear();

  auto child = node->children().member(12);
  auto childWatch = watch("c12", child);
  EXPECT_EQ(child->parent(), node.ptr());
  EXPECT_EQ(child->memberAttributeId(), Node::Attr::child);
  EXPECT_EQ(node->children().memberIs(12), child);  // existing: same member, nothing notified
  EXPECT_TRUE(log.empty());

  // The owner's watchers see the member already detached when they hear of its removal.
  node->children().memberDel(12);
  EXPECT_EQ(child->parent(), nullptr);
  EXPECT_EQ(child->memberAttributeId(), 0u);
  EXPECT_EQ(log, (std::vector<std::string>{"c12:parent", "a:child12"}));
  log.clear();
  node->children().memberDel(12);  // absent: harmless and silent
  node->children().memberDel(node->children().end());
  EXPECT_TRUE(log.empty());

  auto it = node->children().find(31);
  node->children().memberDel(it);
  node->children().memberDelAll();
  EXPECT_EQ(log, (std::vector<std::string>{"a:child31", "a:child3", "a:child5", "a:child19"}));
  EXPECT_TRUE(node->children().empty());

  // newMember: a plain insertion is left to the caller to announce; a replacement says so.
  log.clear();
  auto first = node->children().newMember(4);
  EXPECT_TRUE(log.empty());
  auto second = node->children().newMember(4);
  EXPECT_NE(first, second);
  EXPECT_EQ(first->parent(), nullptr);
  EXPECT_EQ(second->parent(), node.ptr());
  EXPECT_EQ(log, (std::vector<std::string>{"a:child4"}));
}

// Every collection operation keeps its owner alive while it runs: the caller may hold the owner by
// plain pointer only (as a state machine's back pointer does), and a handler, of the owner or of
// a member, may drop the owner's last reference. AddressSanitizer reports any use after free.
TEST_F(WalkTest, CollectionOperationsSurviveHandlersDroppingTheirOwner) {
  using Op = std::function<void(Node::ChildColl&)>;
  std::pair<char const*, Op> const ops[] = {
      {"memberDelAll", [](Node::ChildColl& c) { c.memberDelAll(); }},
      {"memberDel", [](Node::ChildColl& c) { c.memberDel(2); }},
      {"memberDel(iterator)", [](Node::ChildColl& c) { c.memberDel(c.find(2)); }},
      {"newMember replacing", [](Node::ChildColl& c) { c.newMember(2); }},
      {"memberIs", [](Node::ChildColl& c) { c.memberIs(4); }},
      {"memberNotify", [](Node::ChildColl& c) { c.memberNotify(2); }},
  };
  for (bool byMember : {false, true}) {
    for (auto const& [name, op] : ops) {
      SCOPED_TRACE(std::string(name) + (byMember ? " (member's watcher)" : " (owner's watcher)"));
      Kiv::Ptr<Node> owner = new Node(0);
      for (int k : {1, 2, 3}) owner->children().memberIs(k);
      Node* raw = owner.ptr();
      Kiv::Ptr<Watcher> w;
      if (byMember) {
        w = watch("w", owner->children().member(2));
        w->onParentAction = [&] { owner = nullptr; };
      } else {
        w = watch("w", owner);
        w->onChildAction = [&] { w->notifierIs(nullptr); };
        owner = nullptr;  // only the watcher keeps it now
      }
      op(raw->children());
      owner = nullptr;
      w = nullptr;
      EXPECT_EQ(Node::live, 1);  // the fixture's node
    }
  }
}

// While an owner is being destroyed, its members cannot reach it: their parent links read as null
// and no reference to it can be taken, even from a plain back pointer (a reference taken then
// would free it a second time).
TEST_F(WalkTest, DyingOwnerCannotBeReachedFromItsMembers) {
  Node* raw = node.ptr();
  auto first = node->children().memberIs(1);
  auto second = node->children().memberIs(2);
  auto w = watch("first", first);
  std::vector<Kiv::Entity*> parents;
  std::vector<Node*> refs;
  w->onParentAction = [&] {  // `first` is removed while `second` is still a member
    parents.push_back(second->parent());
    refs.push_back(Kiv::Ptr<Node>(raw).ptr());
  };
  node = nullptr;
  EXPECT_EQ(parents, std::vector<Kiv::Entity*>{nullptr});
  EXPECT_EQ(refs, std::vector<Node*>{nullptr});
  EXPECT_EQ(second->parent(), nullptr);
  EXPECT_EQ(second->memberAttributeId(), 0u);
}

// The collection storage against std::map as the model: the same order, lookups and lower bounds
// through growth, shrinking and emptying, with well spread hashes and with hashes that all share
// their top bits (one run holds everything); an iterator held meanwhile stays on its entry.
TEST(OrderedHashMap, FollowsAnOrderedMapThroughGrowthAndShrinking) {
  struct Slot {
    std::uint32_t hash;
    int key;
    bool operator<(Slot const& o) const { return hash != o.hash ? hash < o.hash : key < o.key; }
  };
  for (bool spread : {true, false}) {
    auto slotOf = [&](int key) {
      auto const h = static_cast<std::uint32_t>(key / 3);  // ties broken by key
      return Slot{spread ? Kiv::bitReverse(h) : h & 0xff, key};
    };
    Kiv::OrderedHashMap<Slot, int> map;
    std::map<Slot, int> model;
    map.try_emplace(slotOf(-1), -1);  // held across everything below
    auto const held = map.find(slotOf(-1));
    std::mt19937 rng(spread ? 1 : 2);
    for (int step = 0; step < 20000; ++step) {
      // Grows towards ~1500 entries, then mostly drains.
      int const key = static_cast<int>(rng() % 2000);
      bool const insert = step < 12000 ? rng() % 3 != 0 : rng() % 5 == 0;
      if (insert) {
        EXPECT_EQ(map.try_emplace(slotOf(key), key).second, model.emplace(slotOf(key), key).second);
      } else {
        EXPECT_EQ(map.erase(slotOf(key)), model.erase(slotOf(key)));
      }
      int const probe = static_cast<int>(rng() % 2000);
      auto const lb = model.lower_bound(slotOf(probe));
      auto const got = map.lower_bound(slotOf(probe));
      // The held entry sorts first (hash 0, key -1), below every probe.
      ASSERT_EQ(got == map.end() ? -2 : got->first.key, lb == model.end() ? -2 : lb->first.key)
          << "step " << step;
      EXPECT_EQ(map.find(slotOf(probe)) != map.end(), model.count(slotOf(probe)) == 1);
      if (step % 1000 == 0 || step == 19999) {
        std::vector<int> mapKeys, modelKeys;
        for (auto const& [slot, value] : map) {
          if (value != -1) mapKeys.push_back(value);
        }
        for (auto const& [slot, value] : model) modelKeys.push_back(value);
        ASSERT_EQ(mapKeys, modelKeys) << "step " << step;
        EXPECT_EQ(map.size(), model.size() + 1);
        EXPECT_EQ(held->second, -1);
      }
    }
    for (auto const& [slot, value] : model) map.erase(slot);
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(map.begin(), held);
    map.erase(held);
    EXPECT_TRUE(map.empty() && map.begin() == map.end());
  }
}

// Every entity is found from its address while it lives and not after: many entities, half of
// them destroyed in random order (the registry's erase moves the survivors' cells).
TEST(EntityLifecycle, LiveEntitiesResolveFromTheirAddressUntilDestroyed) {
  std::vector<Kiv::Ptr<Node>> nodes;
  for (int i = 0; i < 5000; ++i) nodes.push_back(new Node(i));
  std::vector<std::uintptr_t> addresses;
  for (auto const& n : nodes) addresses.push_back(reinterpret_cast<std::uintptr_t>(n.ptr()));
  std::vector<std::size_t> order(nodes.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (std::size_t i = 0; i < order.size() / 2; ++i) nodes[order[i]] = nullptr;
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    ASSERT_EQ(Kiv::Entity::liveEntity(addresses[i]).ptr(), nodes[i].ptr()) << i;
  }
  EXPECT_EQ(Kiv::Entity::liveEntity(0), nullptr);
  // Creations and destructions interleaved, so that addresses are freed and taken again both
  // before and after the registry has filed them.
  for (std::size_t i = 0; i < order.size() / 2; ++i) {
    nodes[order[i]] = new Node(int(i));
    addresses[order[i]] = reinterpret_cast<std::uintptr_t>(nodes[order[i]].ptr());
    if (i % 3 == 0) nodes[order[order.size() - 1 - i]] = nullptr;
  }
  // A destroyed entity's address resolves to nothing, or to the live entity that took it.
  std::map<std::uintptr_t, Kiv::Entity*> live;
  for (auto const& n : nodes) {
    if (n) live[reinterpret_cast<std::uintptr_t>(n.ptr())] = n.ptr();
  }
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    auto const it = live.find(addresses[i]);
    ASSERT_EQ(Kiv::Entity::liveEntity(addresses[i]).ptr(), it == live.end() ? nullptr : it->second)
        << i;
  }
}

TEST(EntityLifecycle, NondestructingEntitySurvivesZeroReferencesUntilReleased) {
  static int destroyed = 0;
  struct Probe : Node {
    Probe() : Node(0) {}
    ~Probe() override { ++destroyed; }
  };
  Kiv::Ptr<Probe> p = new Probe;
  Probe* raw = p.ptr();
  raw->isNondestructingIs(true);
  p = nullptr;
  EXPECT_EQ(destroyed, 0);
  EXPECT_TRUE(raw->zeroReferences());
  raw->isNondestructingIs(false);  // no reference left: it goes now
  EXPECT_EQ(destroyed, 1);

  // A watcher may drop the last reference while it hears the switch: the entity goes once, after.
  p = new Probe;
  raw = p.ptr();
  raw->isNondestructingIs(true);
  std::vector<std::string> log;
  Kiv::Ptr<Watcher> w = new Watcher(log, "w");
  w->notifierIs(p);
  p = nullptr;
  w->onIsNondestructingAction = [&] { w->notifierIs(nullptr); };
  raw->isNondestructingIs(false);
  EXPECT_EQ(destroyed, 2);
}

TEST(PtrConcurrent, ReferencesTakenAndDroppedOnManyThreadsFreeTheObjectOnce) {
  static std::atomic<int> destroyed{0};
  struct Counted : Kiv::PtrInterface {
    ~Counted() override { destroyed.fetch_add(1); }
  };
  Kiv::Ptr<Counted const> shared = new Counted;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([copy = shared] {
      for (int i = 0; i < 20000; ++i) {
        Kiv::Ptr<Counted const> a = copy;
        Kiv::Ptr<Counted const> b = std::move(a);
      }
    });
  }
  shared = nullptr;  // the threads' copies now decide when it goes
  for (auto& t : threads) t.join();
  EXPECT_EQ(destroyed.load(), 1);
}

}  // namespace
