// Keyed reactor collections: create-or-return, replacement without the delete hook, removal
// through it (the member a zombie by then), zombies turned back (a detached one stays), a member
// inserted while another for the same key was being made, and a delete hook that drops the last
// reference to the state machine. (The writer state machine's
// tests cover the rest.)

#include "Kiv/Reactor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct IntHash {
  std::uint32_t operator()(int k) const { return Kiv::bitReverse(static_cast<std::uint32_t>(k)); }
};

class Cell : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstOf<Cell, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onValue() {}
  };
  void valueIs(int v) {
    attributeIs(value_, v, Kiv::kFirstTypeAttributeId, &NotifieeConst::onValue);
  }

 private:
  int value_ = 0;
};

struct Watcher : Kiv::StateMachine {
  struct CellReactor : Kiv::Reactor<Cell::NotifieeConst, Watcher> {
    CellReactor(Watcher* w, int key, Kiv::Ptr<Cell> const& cell) : Reactor(w), key(key) {
      notifierIs(cell);
    }
    void onValue() override {
      if (kivAlive()) owner()->lines.push_back(std::to_string(key));
    }
    int const key;
  };
  Watcher() : StateMachine("watcher") {}
  Kiv::Ptr<CellReactor> cellIs(int key, Kiv::Ptr<Cell> const& cell) {
    return cells.memberIs(key, [&] { return Kiv::newPtr<CellReactor>(this, key, cell); });
  }
  void kiv_handleCell(CellReactor& r) {
    lines.push_back("del " + std::to_string(r.key) + (r.kivZombie() && r.owner() ? " zombie" : ""));
    if (dropSelf) self = nullptr;
  }

  Kiv::ReactorColl<Watcher, int, CellReactor, IntHash> cells{*this, &Watcher::kiv_handleCell};
  std::vector<std::string> lines;
  Kiv::Ptr<Watcher> self;
  bool dropSelf = false;
};

TEST(ReactorColl, CreatesOnceReplacesQuietlyAndDeletesThroughTheHook) {
  auto a = Kiv::newPtr<Cell>(), b = Kiv::newPtr<Cell>();
  auto w = Kiv::newPtr<Watcher>();
  auto r1 = w->cellIs(1, a);
  EXPECT_EQ(w->cellIs(1, b), r1);  // the maker is not run again
  w->cells.newMember(1, [&] { return Kiv::newPtr<Watcher::CellReactor>(w.ptr(), 1, b); });
  EXPECT_TRUE(r1->kivZombie());  // replaced: detached, no delete hook
  EXPECT_EQ(r1->owner(), nullptr);
  r1->kivDoZombieReactors(false);  // a detached reactor cannot be brought back
  EXPECT_TRUE(r1->kivZombie());
  a->valueIs(1);
  b->valueIs(1);
  w->kivDoZombieReactors(true);
  b->valueIs(2);
  w->kivDoZombieReactors(false);
  b->valueIs(3);
  w->cellIs(2, a);
  w->cellIs(3, a);
  w->cells.memberDel(3);
  w->cells.memberDel(3);
  w->cells.memberDelAll();  // map order: bit-reversed 2 before 1
  EXPECT_EQ(w->lines,
            (std::vector<std::string>{"1", "1", "del 3 zombie", "del 2 zombie", "del 1 zombie"}));
}

TEST(ReactorColl, AMemberInsertedWhileOneIsMadeForTheSameKeyStays) {
  auto a = Kiv::newPtr<Cell>();
  auto w = Kiv::newPtr<Watcher>();
  Kiv::Ptr<Watcher::CellReactor> inner;
  auto const outer = w->cells.memberIs(1, [&] {
    inner = w->cellIs(1, a);  // as a handler reached from the constructor's work would
    return Kiv::newPtr<Watcher::CellReactor>(w.ptr(), 1, a);
  });
  EXPECT_EQ(outer, inner);
  EXPECT_EQ(w->cells.size(), 1u);
  a->valueIs(1);  // the one made second was detached: it no longer reacts
  EXPECT_EQ(w->lines, std::vector<std::string>{"1"});
}

TEST(ReactorColl, DeleteHookMayDropTheLastReferenceToItsHost) {
  auto a = Kiv::newPtr<Cell>();
  Watcher* w = new Watcher;
  w->self = w;
  w->dropSelf = true;
  w->cellIs(1, a);
  w->cellIs(2, a);
  w->cells.memberDelAll();  // the host stays until the operation returns (ASan checks)
  a->valueIs(1);
}

}  // namespace
