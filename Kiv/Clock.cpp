#include "Kiv/Clock.h"

#include <algorithm>

namespace Kiv {

void Clock::Notifiee::listIs(bool in) const {
  if (clock_ == nullptr || !registered_) return;
  if (in) {
    clock_->notifiees_.push_back(const_cast<Notifiee*>(this));
  } else {
    std::erase(clock_->notifiees_, this);
  }
}

void Clock::Notifiee::notifierIs(Clock const* clock) {
  if (clock == clock_) return;
  listIs(false);
  clock_ = clock;
  listIs(true);
}

void Clock::Notifiee::isRegisteredNotifieeIs(bool value) {
  if (value == registered_) return;
  listIs(false);
  registered_ = value;
  listIs(true);
}

Clock::~Clock() {
  // Copy: notifierIs(nullptr) edits the list.
  for (Notifiee* n : std::vector<Notifiee*>(notifiees_)) n->notifierIs(nullptr);
}

void Clock::timeMinIs(double t) const {
  if (t == timeMin_) return;
  timeMin_ = t;
  onTimeMin(t);
}

void Clock::tick() const {
  if (timeMin_ == never) return;
  timeMin_ = never;
  onTimeMin(never);
  std::vector<Notifiee*> const snapshot(notifiees_);
  for (Notifiee* n : snapshot) {
    if (std::find(notifiees_.begin(), notifiees_.end(), n) != notifiees_.end()) n->onTime();
  }
}

ActivityClock::ActivityClock(Activity& activity) : timer_([this] { tick(); }, activity) {}

void ActivityClock::onTimeMin(double t) const {
  if (t == never) {
    timer_.cancel();
  } else {
    timer_.armAt(t);
  }
}

}  // namespace Kiv
