#pragma once
// The process's activity: one epoll-based event loop that delivers file-descriptor readiness and
// one-shot timers to handlers, all on the thread that runs the loop.
//
// The library starts no threads: the application runs the loop (`run()`, or `runOnce()` from its
// own loop). Library components register with `Activity::current()`, the process-wide default,
// unless they are given another activity (tests run several activities on several threads).
//
// Threading contract: every member except `stop()` must be called on the thread that runs the
// loop (or while no thread runs it). `stop()` may be called from any thread and from a signal
// handler: it sets an atomic flag and writes an eventfd.
//
// Dispatch is re-entrancy safe: a handler may add or remove file descriptors and timers,
// including its own registration, while it runs. A registration removed during a dispatch round
// receives no further event of that round (events carry a registration id, never the fd itself,
// so a reused fd number cannot receive a stale event). A timer armed during a round for a time
// already past fires in the next round, so a handler that re-arms itself for "now" cannot starve
// file descriptors.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>

struct epoll_event;

namespace Kiv {

class Activity {
 public:
  using Id = std::uint64_t;  // 0 is never a valid registration
  using FdHandler = std::function<void(std::uint32_t epollEvents)>;
  using TimerHandler = std::function<void()>;

  // Raises Jorv::RuntimeException when the kernel objects cannot be created.
  Activity();
  ~Activity();
  Activity(Activity const&) = delete;
  Activity& operator=(Activity const&) = delete;

  // The process-wide default activity, created on first use.
  static Activity& current();

  // Monotonic time in seconds; the time base of every timer.
  static double now() noexcept;

  // Watches `fd` for `epollEvents` (EPOLLIN, EPOLLOUT, ...; level-triggered unless EPOLLET is
  // among them; EPOLLEXCLUSIVE holds from registration on and cannot be changed by
  // `fdEventsIs`). The fd stays owned by the caller, who must `fdDel` before closing it. Raises Jorv::RuntimeException if the
  // kernel refuses the fd (already watched, not pollable).
  Id fdIs(int fd, std::uint32_t epollEvents, FdHandler handler);
  void fdEventsIs(Id id, std::uint32_t epollEvents);
  void fdDel(Id id) noexcept;

  // One-shot timer: `handler` runs once, at or after monotonic time `when`.
  Id timerIs(double when, TimerHandler handler);
  void timerDel(Id id) noexcept;
  bool timerPending(Id id) const noexcept { return timers_.count(id) != 0; }

  // Runs until `stop()`. A `stop()` that came before `run()` makes it return at once.
  void run();
  // Waits at most `timeoutSeconds` (negative: no limit; the wait also ends at the next timer)
  // for events, dispatches them and the due timers, and returns the number of handlers called.
  std::size_t runOnce(double timeoutSeconds);
  // Makes `run()` return after the current dispatch. Async-signal-safe and thread-safe.
  void stop() noexcept;

  std::size_t numFds() const noexcept { return fds_.size(); }
  std::size_t numTimers() const noexcept { return timers_.size(); }

 private:
  struct FdEntry {
    int fd;
    FdHandler handler;
  };
  struct TimerEntry {
    double when;
    TimerHandler handler;
  };

  // The wait before the next timer or `timeoutSeconds`, whichever is first (negative: none).
  double waitSeconds(double timeoutSeconds) const;
  int wait(::epoll_event* events, int maxEvents, double timeoutSeconds) const;
  std::size_t fireDueTimers();

  int epollFd_ = -1;
  int wakeFd_ = -1;  // eventfd written by stop()
  std::atomic<bool> stopRequested_{false};
  Id nextId_ = 1;
  std::unordered_map<Id, std::shared_ptr<FdEntry>> fds_;
  std::map<Id, TimerEntry> timers_;
  std::set<std::pair<double, Id>> timerOrder_;  // (when, id): equal deadlines fire in arm order
};

// Owns one fd registration on an activity and removes it on destruction.
class FdWatch {
 public:
  FdWatch() = default;
  FdWatch(Activity& activity, int fd, std::uint32_t epollEvents, Activity::FdHandler handler)
      : activity_(&activity), id_(activity.fdIs(fd, epollEvents, std::move(handler))) {}
  ~FdWatch() { reset(); }
  FdWatch(FdWatch&& other) noexcept
      : activity_(std::exchange(other.activity_, nullptr)), id_(std::exchange(other.id_, 0)) {}
  FdWatch& operator=(FdWatch&& other) noexcept {
    if (this != &other) {
      reset();
      activity_ = std::exchange(other.activity_, nullptr);
      id_ = std::exchange(other.id_, 0);
    }
    return *this;
  }

  void eventsIs(std::uint32_t epollEvents) {
    if (id_ != 0) activity_->fdEventsIs(id_, epollEvents);
  }
  void reset() noexcept {
    if (id_ != 0) activity_->fdDel(std::exchange(id_, 0));
  }
  bool active() const noexcept { return id_ != 0; }

 private:
  Activity* activity_ = nullptr;
  Activity::Id id_ = 0;
};

}  // namespace Kiv
