#pragma once
// The framework clock: monotonic time in seconds and a wake-up request.
//
// `timeMinIs(t)` asks for one `onTime()` call to each registered notifiee at or after time `t`;
// a later request replaces a pending one, and `Clock::never` withdraws it. The request is cleared
// before the notifiees are called, so `onTime()` may ask again (for example `timeMinIs(now())` to
// run the next slice of work after the activity's other work has had its turn).
//
// `ActivityClock` is the product clock, driven by a timer of an activity. Tests drive their own
// subclass by hand (they implement `now()` and `onTimeMin()` and call `tick()`).

#include <limits>
#include <vector>

#include "Kiv/Ptr.h"
#include "Kiv/Timer.h"

namespace Kiv {

// Reference counted like every framework object (`Kiv::Ptr<Kiv::Clock const>`); may also live on
// the stack or in a member when nothing takes a reference to it.
class Clock : public PtrInterface {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  class Notifiee {
   public:
    Notifiee() = default;
    explicit Notifiee(Clock const* clock) { notifierIs(clock); }
    virtual ~Notifiee() { notifierIs(nullptr); }
    Notifiee(Notifiee const&) = delete;
    Notifiee& operator=(Notifiee const&) = delete;

    // Registers with `clock` (nullptr: unregisters); a notifiee hears one clock at a time.
    void notifierIs(Clock const* clock);
    void notifierIs(Ptr<Clock const> const& clock) { notifierIs(clock.ptr()); }
    Clock const* notifier() const noexcept { return clock_; }
    // Switches delivery off (keeps the clock) or back on, as for entity notifiees.
    bool isRegisteredNotifiee() const noexcept { return registered_; }
    void isRegisteredNotifieeIs(bool value);
    virtual void onTime() = 0;

   private:
    void listIs(bool in) const;
    Clock const* clock_ = nullptr;
    bool registered_ = true;
  };

  Clock() = default;
  ~Clock() override;  // unregisters the remaining notifiees
  Clock(Clock const&) = delete;
  Clock& operator=(Clock const&) = delete;

  virtual double now() const = 0;
  double timeMin() const noexcept { return timeMin_; }
  // Const like every framework clock handle: asking for a tick does not change what time it is.
  void timeMinIs(double t) const;

 protected:
  // Told every time the request changes (`never` when withdrawn or fired).
  virtual void onTimeMin(double t) const = 0;
  // Delivers the pending request: clears it and calls every notifiee registered at that moment
  // that is still registered when its turn comes.
  void tick() const;

 private:
  mutable double timeMin_ = never;
  mutable std::vector<Notifiee*> notifiees_;
};

// The clock of an activity: `now()` is the activity's monotonic time, ticks come from its timer.
class ActivityClock final : public Clock {
 public:
  explicit ActivityClock(Activity& activity = Activity::current());
  double now() const override { return Activity::now(); }

 private:
  void onTimeMin(double t) const override;
  mutable Timer timer_;
};

}  // namespace Kiv
