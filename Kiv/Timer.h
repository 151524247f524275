#pragma once
// A one-shot timer on an activity: armed for a monotonic time (or a delay), it calls its handler
// once, on the activity's thread, at or after that time. Arming again replaces the pending
// expiry; destruction cancels it. The handler may re-arm or cancel the timer, or destroy it.

#include <functional>
#include <limits>
#include <memory>

#include "Kiv/Activity.h"

namespace Kiv {

class Timer {
 public:
  explicit Timer(std::function<void()> onExpiry, Activity& activity = Activity::current());
  ~Timer() { cancel(); }
  Timer(Timer const&) = delete;
  Timer& operator=(Timer const&) = delete;

  void armAt(double when);
  void armIn(double seconds) { armAt(Activity::now() + seconds); }
  void cancel() noexcept;
  bool armed() const noexcept { return id_ != 0; }
  // The pending expiry time; infinity when not armed.
  double expiry() const noexcept {
    return armed() ? when_ : std::numeric_limits<double>::infinity();
  }
  Activity& activity() const noexcept { return *activity_; }

 private:
  Activity* activity_;
  // Shared with the pending activity entry, so that a handler that destroys its timer does not
  // destroy the function that is running.
  std::shared_ptr<std::function<void()>> onExpiry_;
  Activity::Id id_ = 0;
  double when_ = 0;
};

}  // namespace Kiv
