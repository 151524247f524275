#include "Kiv/Activity.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>
#include <string>

#include "Jorv/Exception.h"

namespace Kiv {
namespace {

constexpr Activity::Id wakeId = 0;
constexpr int maxEventsPerWait = 64;

[[noreturn]] void fail(char const* what) {
  throw Jorv::RuntimeException(std::string("Activity::") + what +
                               " failed: " + std::strerror(errno));
}

}  // namespace

Activity::Activity() {
  epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) fail("Activity() epoll_create1");
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd_ < 0) {
    int saved = errno;
    ::close(epollFd_);
    errno = saved;
    fail("Activity() eventfd");
  }
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = wakeId;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &ev) != 0) {
    int saved = errno;
    ::close(wakeFd_);
    ::close(epollFd_);
    errno = saved;
    fail("Activity() epoll_ctl");
  }
}

Activity::~Activity() {
  ::close(wakeFd_);
  ::close(epollFd_);
}

Activity& Activity::current() {
  // Never destroyed: objects destroyed at exit may still unregister from it.
  static Activity* activity = new Activity;
  return *activity;
}

double Activity::now() noexcept {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

Activity::Id Activity::fdIs(int fd, std::uint32_t epollEvents, FdHandler handler) {
  Id id = nextId_++;
  epoll_event ev{};
  ev.events = epollEvents;
  ev.data.u64 = id;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) fail("fdIs() epoll_ctl");
  fds_.emplace(id, std::make_shared<FdEntry>(FdEntry{fd, std::move(handler)}));
  return id;
}

void Activity::fdEventsIs(Id id, std::uint32_t epollEvents) {
  auto it = fds_.find(id);
  if (it == fds_.end()) return;
  epoll_event ev{};
  ev.events = epollEvents;
  ev.data.u64 = id;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, it->second->fd, &ev) != 0)
    fail("fdEventsIs() epoll_ctl");
}

void Activity::fdDel(Id id) noexcept {
  auto it = fds_.find(id);
  if (it == fds_.end()) return;
  // Fails only if the caller closed the fd already, which removed it from the set anyway.
  ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, it->second->fd, nullptr);
  fds_.erase(it);
}

Activity::Id Activity::timerIs(double when, TimerHandler handler) {
  Id id = nextId_++;
  timers_.emplace(id, TimerEntry{when, std::move(handler)});
  timerOrder_.emplace(when, id);
  return id;
}

void Activity::timerDel(Id id) noexcept {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  timerOrder_.erase({it->second.when, id});
  timers_.erase(it);
}

double Activity::waitSeconds(double timeoutSeconds) const {
  double wait = timeoutSeconds;
  if (!timerOrder_.empty()) {
    double untilTimer = timerOrder_.begin()->first - now();
    if (wait < 0 || untilTimer < wait) wait = untilTimer;
  }
  if (wait < 0) return timeoutSeconds < 0 && timerOrder_.empty() ? -1 : 0;
  return wait;
}

int Activity::wait(epoll_event* events, int maxEvents, double timeoutSeconds) const {
  double const seconds = waitSeconds(timeoutSeconds);
  // Nanosecond timeouts where the kernel has them: with whole milliseconds a 0.2 ms pacing wait
  // would sleep a full millisecond. Rounded up either way: a timer never fires before its time.
  static std::atomic<bool> noPwait2{false};
  if (!noPwait2.load(std::memory_order_relaxed)) {
    timespec ts{};
    timespec* timeout = nullptr;
    if (seconds >= 0) {
      double const ns = std::ceil(seconds * 1e9);
      double const secs = std::floor(ns / 1e9);
      ts.tv_sec = secs >= double(INT_MAX) ? INT_MAX : time_t(secs);
      ts.tv_nsec = secs >= double(INT_MAX) ? 0 : long(ns - secs * 1e9);
      timeout = &ts;
    }
    int const n = ::epoll_pwait2(epollFd_, events, maxEvents, timeout, nullptr);
    if (n >= 0 || (errno != ENOSYS && errno != EPERM)) return n;
    // A kernel older than 5.11, or a seccomp filter that refuses system calls it does not know
    // with EPERM (epoll waits never fail with EPERM otherwise).
    noPwait2.store(true, std::memory_order_relaxed);
  }
  double const ms = seconds < 0 ? -1 : std::ceil(seconds * 1000.0);
  return ::epoll_wait(epollFd_, events, maxEvents, ms >= double(INT_MAX) ? INT_MAX : int(ms));
}

std::size_t Activity::fireDueTimers() {
  std::size_t fired = 0;
  double const t = now();
  Id const limit = nextId_;  // timers armed by the handlers below wait for the next round
  for (auto it = timerOrder_.begin(); it != timerOrder_.end() && it->first <= t;) {
    Id id = it->second;
    if (id >= limit) {
      ++it;
      continue;
    }
    auto entry = timers_.find(id);
    TimerHandler handler = std::move(entry->second.handler);
    timers_.erase(entry);
    timerOrder_.erase(it);
    handler();
    ++fired;
    it = timerOrder_.begin();  // the handler may have changed the set
  }
  return fired;
}

std::size_t Activity::runOnce(double timeoutSeconds) {
  epoll_event events[maxEventsPerWait];
  int n = wait(events, maxEventsPerWait, timeoutSeconds);
  if (n < 0) {
    if (errno != EINTR) fail("runOnce() epoll wait");
    n = 0;
  }
  std::size_t called = 0;
  for (int i = 0; i < n; ++i) {
    Id id = events[i].data.u64;
    if (id == wakeId) {
      std::uint64_t count;
      while (::read(wakeFd_, &count, sizeof count) > 0) {
      }
      continue;
    }
    auto it = fds_.find(id);
    if (it == fds_.end()) continue;              // removed earlier in this round
    std::shared_ptr<FdEntry> keep = it->second;  // the handler may remove itself
    keep->handler(events[i].events);
    ++called;
  }
  return called + fireDueTimers();
}

void Activity::run() {
  while (!stopRequested_.exchange(false, std::memory_order_acq_rel)) runOnce(-1);
}

void Activity::stop() noexcept {
  stopRequested_.store(true, std::memory_order_release);
  int saved = errno;
  std::uint64_t one = 1;
  [[maybe_unused]] auto r = ::write(wakeFd_, &one, sizeof one);
  errno = saved;
}

}  // namespace Kiv
