#include "Kiv/Timer.h"

#include <utility>

namespace Kiv {

Timer::Timer(std::function<void()> onExpiry, Activity& activity)
    : activity_(&activity),
      onExpiry_(std::make_shared<std::function<void()>>(std::move(onExpiry))) {}

void Timer::armAt(double when) {
  cancel();
  when_ = when;
  id_ = activity_->timerIs(when, [this, handler = onExpiry_] {
    id_ = 0;  // disarmed before the call, so the handler may re-arm or destroy the timer
    (*handler)();
  });
}

void Timer::cancel() noexcept {
  if (id_ != 0) activity_->timerDel(std::exchange(id_, 0));
}

}  // namespace Kiv
