// State machines and reactors: keyed reactor collections with their delete hook, the two
// operations passed down to nested reactors, teardown that runs no delete hook, and handlers that
// drop the last reference to their state machine.

#include "Kiv/Reactor.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

struct IntHash {
  std::uint32_t operator()(int key) const {
    return Kiv::bitReverse(static_cast<std::uint32_t>(key));
  }
};

class Cell : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstOf<Cell, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onValue() {}
  };
  using Notifiee = Kiv::NotifieeOf<Cell, NotifieeConst>;
  void valueIs(int v) {
    attributeIs(value_, v, Kiv::kFirstTypeAttributeId, &NotifieeConst::onValue);
  }
  int value() const { return value_; }

 private:
  int value_ = 0;
};

class Watcher;

// Watches one cell; nests one reactor watching a second cell, to see the operations pass down.
class CellReactor : public Kiv::Reactor<Cell::NotifieeConst, Watcher> {
 public:
  class Inner : public Kiv::Reactor<Cell::NotifieeConst, CellReactor> {
   public:
    Inner(CellReactor* owner, Kiv::Ptr<Cell> const& cell) : Reactor(owner) { notifierIs(cell); }
    void onValue() override;
  };
  CellReactor(Watcher* owner, int key, Kiv::Ptr<Cell> const& cell);
  void onValue() override;
  void handleDelete();
  int const key;
  Kiv::ReactorPtr<Inner> inner{*this};
};

class Watcher : public Kiv::StateMachine {
 public:
  Watcher() : StateMachine("watcher") {}
  Kiv::Ptr<CellReactor> cellIs(int key, Kiv::Ptr<Cell> const& cell) {
    return cells.memberIs(key, [&] { return Kiv::newPtr<CellReactor>(this, key, cell); });
  }
  void kiv_handleCell(CellReactor& r) { r.handleDelete(); }
  void log(std::string line) { lines.push_back(std::move(line)); }

  Kiv::ReactorColl<Watcher, int, CellReactor, IntHash> cells{*this, &Watcher::kiv_handleCell};
  std::vector<std::string> lines;
  std::function<void()> onEvent;  // run after each logged event (re-entrancy tests)
};

Kiv::Ptr<Cell> innerCell = nullptr;

CellReactor::CellReactor(Watcher* owner, int key, Kiv::Ptr<Cell> const& cell)
    : Reactor(owner), key(key) {
  notifierIs(cell);
  if (innerCell) inner.reactorIs(Kiv::newPtr<Inner>(this, innerCell));
}
void CellReactor::onValue() {
  if (!kivAlive()) return;
  Watcher* w = owner();
  w->log(std::to_string(key) + "=" + std::to_string(notifier()->value()));
  auto const event = w->onEvent;
  if (event) event();  // may drop the last reference to w: nothing after this
}
void CellReactor::handleDelete() {
  owner()->log("del " + std::to_string(key) + (kivZombie() ? " zombie" : ""));
  auto const event = owner()->onEvent;
  if (event) event();
}
void CellReactor::Inner::onValue() {
  if (kivAlive()) owner()->owner()->log("inner " + std::to_string(owner()->key));
}

struct ReactorTest : ::testing::Test {
  void SetUp() override { innerCell = nullptr; }
  void TearDown() override { innerCell = nullptr; }
  Kiv::Ptr<Cell> a = Kiv::newPtr<Cell>(), b = Kiv::newPtr<Cell>(), c = Kiv::newPtr<Cell>();
  Kiv::Ptr<Watcher> w = Kiv::newPtr<Watcher>();
};

TEST_F(ReactorTest, CollectionCreatesOnceDeletesThroughHookAndDetaches) {
  auto r1 = w->cellIs(1, a);
  EXPECT_EQ(w->cellIs(1, b), r1);  // create-or-return: the maker is not run again
  w->cellIs(2, b);
  a->valueIs(5);
  b->valueIs(6);
  EXPECT_EQ(w->lines, (std::vector<std::string>{"1=5", "2=6"}));

  // Replacing detaches the old reactor without its delete hook.
  auto r2 = w->cells.newMember(1, [&] { return Kiv::newPtr<CellReactor>(w.ptr(), 1, c); });
  EXPECT_TRUE(r1->kivZombie());
  EXPECT_EQ(r1->owner(), nullptr);
  w->lines.clear();
  a->valueIs(7);  // the replaced reactor still watches a, but is deaf
  c->valueIs(8);
  EXPECT_EQ(w->lines, (std::vector<std::string>{"1=8"}));

  // Removal: the hook sees a zombie that still has its owner; afterwards it is detached. Deleting
  // an absent key does nothing; memberDelAll goes in map order (bit-reversed 2 < 3).
  w->cells.memberDel(1);
  w->cells.memberDel(1);
  EXPECT_EQ(r2->owner(), nullptr);
  w->cellIs(3, a);
  w->cells.memberDelAll();
  EXPECT_EQ(w->lines,
            (std::vector<std::string>{"1=8", "del 1 zombie", "del 2 zombie", "del 3 zombie"}));
  EXPECT_TRUE(w->cells.empty());
}

TEST_F(ReactorTest, OperationsPassDownAndTeardownRunsNoDeleteHook) {
  innerCell = c;
  auto r = w->cellIs(1, a);
  c->valueIs(1);
  w->hasNotificationActiveIs(false);
  auto late = w->cellIs(2, b);  // taken while off: off as well
  a->valueIs(2);
  b->valueIs(2);
  c->valueIs(2);
  w->hasNotificationActiveIs(true);
  a->valueIs(3);
  w->kivDoZombieReactors(true);
  a->valueIs(4);
  c->valueIs(4);
  w->kivDoZombieReactors(false);
  c->valueIs(5);
  // Turned back on in map order (bit-reversed 2 < 1), so 2's inner reactor hears c first now.
  EXPECT_EQ(w->lines, (std::vector<std::string>{"inner 1", "1=3", "inner 2", "inner 1"}));

  w = nullptr;  // no delete hook; the reactors we still hold are detached zombies
  EXPECT_EQ(r->owner(), nullptr);
  EXPECT_TRUE(r->kivZombie());
  EXPECT_EQ(r->inner.reactor()->owner(), r.ptr());  // nested reactors keep their living owner
  EXPECT_FALSE(r->inner.reactor()->kivAlive());
  a->valueIs(9);
  c->valueIs(9);
}

TEST_F(ReactorTest, HandlersMayDropTheLastReferenceToTheirStateMachine) {
  // In a notification handler.
  w->cellIs(1, a);
  w->cellIs(2, a);  // a second reactor of the same cell still hears the change, deaf
  w->onEvent = [this] { w = nullptr; };
  a->valueIs(1);
  EXPECT_EQ(w, nullptr);

  // In the delete hook of memberDel and memberDelAll: the collection keeps its host alive.
  for (int all = 0; all < 2; ++all) {
    w = Kiv::newPtr<Watcher>();
    w->cellIs(1, a);
    w->cellIs(2, b);
    Watcher* raw = w.ptr();
    raw->onEvent = [this] { w = nullptr; };
    if (all) {
      raw->cells.memberDelAll();
    } else {
      raw->cells.memberDel(1);
    }
    EXPECT_EQ(w, nullptr);
  }
}

TEST(ReactorNullArgument, Text) {
  try {
    Kiv::throwNullArgument("_x", "A::B::x");
    FAIL();
  } catch (Kiv::NullArgumentException const& e) {
    EXPECT_STREQ(e.what(), "null _x parameter to mutator for A::B::x not allowed\"");
  }
}

}  // namespace
