#include "Kiv/Clock.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace {

using Kiv::Clock;

// A clock that tests move by hand.
class ManualClock final : public Clock {
 public:
  double now() const override { return now_; }
  // Moves time forward and delivers the pending tick if it is due.
  void advanceTo(double t) {
    now_ = t;
    if (timeMin() <= now_) tick();
  }
  int requests = 0;

 private:
  void onTimeMin(double) const override { ++const_cast<ManualClock*>(this)->requests; }
  double now_ = 0;
};

struct Reactor : Clock::Notifiee {
  explicit Reactor(Clock const* c) : Notifiee(c) {}
  std::function<void()> action;
  int ticks = 0;
  void onTime() override {
    ++ticks;
    if (action) action();
  }
};

TEST(Clock, RequestFiresOnceAtOrAfterItsTimeAndLaterRequestReplaces) {
  ManualClock clock;
  Reactor r(&clock);
  clock.timeMinIs(5);
  clock.timeMinIs(10);  // replaces 5
  clock.advanceTo(7);
  EXPECT_EQ(r.ticks, 0);
  clock.advanceTo(10);
  EXPECT_EQ(r.ticks, 1);
  EXPECT_EQ(clock.timeMin(), Clock::never);
  clock.advanceTo(20);
  EXPECT_EQ(r.ticks, 1);  // one call per request
  clock.timeMinIs(25);
  clock.timeMinIs(Clock::never);  // withdrawn
  clock.advanceTo(30);
  EXPECT_EQ(r.ticks, 1);
}

TEST(Clock, NotifieesMayLeaveOrDieDuringTheTick) {
  ManualClock clock;
  auto first = std::make_unique<Reactor>(&clock);
  auto second = std::make_unique<Reactor>(&clock);
  Reactor third(&clock);
  first->action = [&] {
    second.reset();             // destroyed before its turn: not called
    third.notifierIs(nullptr);  // unregistered before its turn: not called
    clock.timeMinIs(clock.now());
  };
  clock.timeMinIs(1);
  clock.advanceTo(1);
  EXPECT_EQ(first->ticks, 1);
  EXPECT_EQ(third.ticks, 0);
  EXPECT_EQ(clock.timeMin(), 1);  // asked again from inside onTime
  first.reset();
}

TEST(Clock, ClockDestroyedBeforeItsNotifiees) {
  auto clock = std::make_unique<ManualClock>();
  Reactor r(clock.get());
  clock.reset();
  EXPECT_EQ(r.notifier(), nullptr);
}

}  // namespace
