#include "Kiv/Activity.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Jorv/Exception.h"
#include "Kiv/Timer.h"
#include "support/ActivityWait.h"

namespace {

using Kiv::Activity;
using TestSupport::runUntil;

struct Pipe {
  int fds[2];
  Pipe() { EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  void put() { ASSERT_EQ(::write(fds[1], "x", 1), 1); }
  void drain() {
    char buf[64];
    while (::read(fds[0], buf, sizeof buf) > 0) {
    }
  }
};

TEST(Activity, FdHandlersMayRemoveThemselvesAndOthersDuringDispatch) {
  Activity activity;
  Pipe a, b;
  int calls = 0;
  Activity::Id idA = 0, idB = 0;
  // Whichever runs first removes both registrations: the other's pending event of the same
  // round must not be delivered.
  auto handler = [&](Pipe& p) {
    return [&](std::uint32_t events) {
      EXPECT_TRUE(events & EPOLLIN);
      p.drain();
      ++calls;
      activity.fdDel(idA);
      activity.fdDel(idB);
    };
  };
  idA = activity.fdIs(a.fds[0], EPOLLIN, handler(a));
  idB = activity.fdIs(b.fds[0], EPOLLIN, handler(b));
  a.put();
  b.put();
  EXPECT_EQ(activity.runOnce(1.0), 1u);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(activity.numFds(), 0u);
  a.put();
  EXPECT_EQ(activity.runOnce(0.01), 0u);
}

TEST(Activity, ReusedFdNumberGetsNoStaleEvent) {
  Activity activity;
  Pipe a, b;
  int stale = 0, fresh = 0;
  Activity::Id idA = 0;
  // A's handler closes its fd and registers a new pipe that gets the same fd number.
  std::unique_ptr<Pipe> replacement;
  idA = activity.fdIs(a.fds[0], EPOLLIN, [&](std::uint32_t) {
    ++stale;
    activity.fdDel(idA);
  });
  a.put();
  EXPECT_EQ(activity.runOnce(1.0), 1u);
  replacement = std::make_unique<Pipe>();
  activity.fdIs(replacement->fds[0], EPOLLIN, [&](std::uint32_t) {
    ++fresh;
    replacement->drain();
  });
  EXPECT_EQ(activity.runOnce(0.01), 0u);
  replacement->put();
  EXPECT_EQ(activity.runOnce(1.0), 1u);
  EXPECT_EQ(stale, 1);
  EXPECT_EQ(fresh, 1);
}

TEST(Activity, RefusedFdLeavesNothingRegistered) {
  Activity activity;
  Pipe p;
  activity.fdIs(p.fds[0], EPOLLIN, [](std::uint32_t) {});
  EXPECT_THROW(activity.fdIs(p.fds[0], EPOLLIN, [](std::uint32_t) {}), Jorv::RuntimeException);
  int file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);  // regular files cannot be polled
  EXPECT_THROW(activity.fdIs(file, EPOLLIN, [](std::uint32_t) {}), Jorv::RuntimeException);
  ::close(file);
  EXPECT_EQ(activity.numFds(), 1u);
}

TEST(Activity, TimersFireOnceInDeadlineOrderNeverEarly) {
  Activity activity;
  std::vector<int> order;
  double const t0 = Activity::now();
  double const when[] = {0.03, 0.01, 0.02, 0.01, 0.0};
  for (int i = 0; i < 5; ++i) {
    activity.timerIs(t0 + when[i], [&, i] {
      EXPECT_GE(Activity::now(), t0 + when[i]);
      order.push_back(i);
    });
  }
  Activity::Id cancelled = activity.timerIs(t0 + 0.015, [&] { order.push_back(99); });
  activity.timerDel(cancelled);
  EXPECT_FALSE(activity.timerPending(cancelled));
  ASSERT_TRUE(runUntil(activity, [&] { return order.size() == 5; }));
  EXPECT_EQ(order, (std::vector<int>{4, 1, 3, 2, 0}));  // equal deadlines: arm order
  EXPECT_EQ(activity.numTimers(), 0u);
  EXPECT_EQ(activity.runOnce(0.03), 0u);
}

TEST(Activity, TimerRearmingItselfForNowDoesNotStarveFds) {
  Activity activity;
  Pipe p;
  bool fdSeen = false;
  int ticks = 0;
  Kiv::Timer busy(
      [&] {
        ++ticks;
        if (!fdSeen) busy.armIn(0);
      },
      activity);
  busy.armIn(0);
  activity.fdIs(p.fds[0], EPOLLIN, [&](std::uint32_t) {
    p.drain();
    fdSeen = true;
  });
  p.put();
  for (int round = 0; round < 3 && !fdSeen; ++round) activity.runOnce(0);
  EXPECT_TRUE(fdSeen);
  EXPECT_LE(ticks, 3);
}

TEST(Activity, TimerHandlerMayDestroyOrCancelTimers) {
  Activity activity;
  int fired = 0;
  auto self = std::make_unique<Kiv::Timer>([&] {}, activity);
  Kiv::Timer* victim = nullptr;
  std::unique_ptr<Kiv::Timer> killer;
  killer = std::make_unique<Kiv::Timer>(
      [&] {
        ++fired;
        victim->cancel();  // due in the same round, must not fire
        self.reset();      // destroys another timer object
        killer.reset();    // and itself, while its handler runs
      },
      activity);
  Kiv::Timer other([&] { fired += 100; }, activity);
  victim = &other;
  double t = Activity::now() + 0.005;
  killer->armAt(t);
  other.armAt(t);
  self->armAt(t);
  ASSERT_TRUE(runUntil(activity, [&] { return killer == nullptr; }));
  EXPECT_EQ(activity.runOnce(0.02), 0u);
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(activity.numTimers(), 0u);
}

TEST(Activity, StopBeforeRunReturnsAtOnceAndRunContinuesAfterwards) {
  Activity activity;
  activity.stop();
  activity.run();  // returns at once
  int fired = 0;
  activity.timerIs(Activity::now(), [&] {
    ++fired;
    activity.stop();
  });
  activity.run();
  EXPECT_EQ(fired, 1);
}

TEST(ActivityConcurrent, StopFromAnotherThreadEndsRun) {
  Activity activity;
  std::atomic<bool> running{false};
  activity.timerIs(Activity::now(), [&] { running = true; });
  std::thread stopper([&] {
    while (!running.load()) std::this_thread::yield();
    activity.stop();
  });
  activity.run();  // blocks in epoll_wait with nothing else to do until stop() arrives
  stopper.join();
  EXPECT_TRUE(running.load());
}

}  // namespace
